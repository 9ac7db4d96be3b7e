// A request and its answer, as a client sees them.
#pragma once

#include "client/connection.h"
#include "resultprinter.h"
#include "text.h"

namespace sqlhost {

// The server's refusal; `place` is that of the error in the request's text, or kNoPlace.
struct ServerError : Failure {
    ServerError(uint32_t where, const std::string& what) : Failure(what), place(where) {}
    uint32_t place;
};

// What a client may say of a request whose answer never came.
constexpr char kOutcomeUnknown[] = "what it did of this is not known";

// Asks, and prints the answer as it comes. Throws ServerError, or another Failure when there is no answer.
void askAndPrint(Connection& connection, char type, std::string_view payload, ResultPrinter& printer);

// Asks for what has no result, and gives the number that the answer ends with, or 0. `unanswered`: what it means when
// the server ends before it has answered. Throws as above.
uint64_t askForNumber(Connection& connection, char type, std::string_view payload, const char* unanswered);

} // namespace sqlhost
