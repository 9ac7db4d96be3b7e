// The commands that speak to a server. They throw Failure.
#pragma once

#include <string>
#include <vector>

namespace sqlhost {

// Has the server of a directory run SQL text, that of standard input when there are no statements, and prints its
// answers. The first statement that fails ends it.
void sqlOnServer(const std::string& directory, const std::vector<std::string>& statements, bool asCsv);

// Prints what the server tells about itself.
void showStatus(const std::string& directory, bool asCsv);

// Ends the server, and waits until its process has.
void stopServer(const std::string& directory);

} // namespace sqlhost
