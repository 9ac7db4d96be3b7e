// The commands that speak to a server. They throw Failure.
#pragma once

#include <string>
#include <vector>

namespace sqlhost {

// Has the server of a directory run SQL text, that of standard input when there are no statements, and prints its
// answers. The first statement that fails ends it.
void sqlOnServer(const std::string& directory, const std::vector<std::string>& statements, bool asCsv);

// The same for statements that are typed at a prompt. A key pressed meanwhile stops an answer. Where there is no
// terminal it is the above.
void shellOnServer(const std::string& directory);

// Has the server of a directory add the rows of a CSV file to a table, which is made when it does not exist: all of
// them or none. The file is read and checked here.
void importOnServer(const std::string& directory, const std::string& table, const std::string& file, bool spill);

struct BackupOptions {
    std::string directory, destination;
    bool force = false;    // replace an existing file
    uint32_t seconds = 60; // for which writing may stand still
};

// Copies the database while the server writes nothing. The destination appears complete or not at all.
void backUp(const BackupOptions& options);

// Prints what the server tells about itself.
void showStatus(const std::string& directory, bool asCsv);

// Ends the server, and waits until its process has.
void stopServer(const std::string& directory);

} // namespace sqlhost
