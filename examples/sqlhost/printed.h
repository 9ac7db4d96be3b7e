// What a piece of the program prints, for those who have to say it in other words.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace sqlhost {

// What `body`, which must not throw, prints on standard output or standard error, and by whatever means: the whole
// process's stream is turned aside meanwhile. Throws Failure when that cannot be.
std::string printedBy(FILE* stream, const std::function<void()>& body);

} // namespace sqlhost
