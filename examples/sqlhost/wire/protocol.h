// The words of the conversation between server and client; PROTOCOL.md tells it. Integers are in the machine's order:
// both ends run on it.
#pragma once

#include <kemsd/ipc.h>

#include <cstdint>

namespace sqlhost {

// Payload bytes of one message of a slot.
constexpr size_t kMessageBytes = SHMEM_CHUNK_SIZE - sizeof(SHMEM_HEADER_T);

// A frame: a type, the length of what follows, and that many bytes.
constexpr size_t kFrameHead = 1 + sizeof(uint32_t);

// ---- Requests: one frame each ------------------------------------------------------------------------------------

constexpr char kRequestSql = 'Q';    // SQL statements
constexpr char kRequestStatus = 'S'; // nothing
constexpr char kRequestBye = 'X';    // nothing; no answer follows

// An import: where to, then rows, any number of times, then the order to insert them. It is the client's until it ends
// or begins another one; a request that fails ends it. The rows of all requests are one stream, cut anywhere.
constexpr char kRequestImport = 'I'; // flags, table, 16-bit count; for each column name, type
constexpr char kRequestRows = 'R';   // for each row a 32-bit line number; for each column 32-bit length or kNull, bytes
constexpr char kRequestInsert = 'N'; // nothing; a failure's place is the row's line number

// A pause of all writing, which is the client's until it ends it, or is gone, or the limit is reached.
constexpr char kRequestPause = 'P';  // 32-bit limit in seconds
constexpr char kRequestResume = 'U'; // nothing; done after so many microseconds, if the pause was never interrupted

// Bytes of SQL that the server takes at a time.
constexpr uint32_t kLongestSql = 1 << 20;

// Of an import's description, and of its rows.
constexpr uint32_t kLongestImport = 1 << 20;
constexpr uint32_t kLongestRows = 1 << 18;

constexpr uint8_t kImportSpills = 1;   // a flag of an import: let SQLite write changed pages out before the commit
constexpr uint32_t kNull = UINT32_MAX; // in place of a length

constexpr uint32_t kLongestPause = 86400; // seconds

// ---- Answers: any number of frames, then a code ------------------------------------------------------------------

constexpr char kFrameColumns = 'C'; // 16-bit count; for each column 32-bit length, name
constexpr char kFrameRow = 'R';     // for each column a value type and, but for NULL, 32-bit length, bytes
constexpr char kFrameDone = 'D';    // a statement has ended; 64-bit number of rows changed, or what the request says
constexpr char kFrameError = 'E';   // 32-bit place in the request or kNoPlace, then a sentence

constexpr uint32_t kNoPlace = UINT32_MAX;

constexpr char kValueNull = 'N';
constexpr char kValueInteger = 'I';
constexpr char kValueReal = 'F';
constexpr char kValueText = 'T';
constexpr char kValueBlob = 'B';

constexpr uint32_t kLongestFrame = 1 << 27;

// ---- Codes -------------------------------------------------------------------------------------------------------

constexpr uint32_t kCodeEnd = 1;    // the answer has ended; or the request has, whose last message was full
constexpr uint32_t kCodeError = 2;  // the answer has ended with an error frame
constexpr uint32_t kCodeWakeUp = 3; // never sent: a process leaves it in its own buffer to wake its own thread

} // namespace sqlhost
