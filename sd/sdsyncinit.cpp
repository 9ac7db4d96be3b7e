// The calibration of the spin bound.

#include <kemsd/sync.h>
