// What a client can ask for: one row of the table for each type of request.
#pragma once

#include <cstdint>
#include <string_view>

#include "database.h"
#include "serve/answer.h"
#include "serve/segments.h"

namespace sqlhost {

struct Belongings;
class Service;
class Channel;

// What a request is answered with.
struct Desk {
    Service& service;
    Database& database; // the client's own connection
    Channel& channel;   // given up: the answer is in vain
    Belongings& belongings;
    const Slot& slot;
    int64_t clientPid;
};

// Ends a request with an error at that place of its text (of an import: its line), or kNoPlace.
struct RequestFailure : Failure {
    RequestFailure(uint32_t where, const std::string& what) : Failure(what), place(where) {}
    uint32_t place;
};

// Answers a request: adds frames, or throws Failure. It leaves no transaction open.
using Handler = void (*)(Desk& desk, std::string_view payload, Answer& answer);

struct RequestKind {
    char type;
    const char* what; // for the list of sessions
    uint32_t longest; // bytes of payload
    Handler handler;  // null: the client ends the conversation
};

// The row of a type, or null.
const RequestKind* requestKind(char type);

void answerSql(Desk& desk, std::string_view sql, Answer& answer);
void answerStatus(Desk& desk, std::string_view nothing, Answer& answer);
void answerImport(Desk& desk, std::string_view description, Answer& answer);
void answerRows(Desk& desk, std::string_view rows, Answer& answer);
void answerInsert(Desk& desk, std::string_view nothing, Answer& answer);
void answerPause(Desk& desk, std::string_view limit, Answer& answer);
void answerResume(Desk& desk, std::string_view nothing, Answer& answer);

} // namespace sqlhost
