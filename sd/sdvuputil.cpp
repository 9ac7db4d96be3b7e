// Not built yet.
