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

// Bytes of SQL that the server takes at a time.
constexpr uint32_t kLongestSql = 1 << 20;

// ---- Answers: any number of frames, then a code ------------------------------------------------------------------

constexpr char kFrameColumns = 'C'; // 16-bit count; for each column 32-bit length, name
constexpr char kFrameRow = 'R';     // for each column a value type and, but for NULL, 32-bit length, bytes
constexpr char kFrameDone = 'D';    // a statement has ended; 64-bit number of rows changed
constexpr char kFrameError = 'E';   // 32-bit place in the request or kNoPlace, then a sentence

constexpr uint32_t kNoPlace = UINT32_MAX;

constexpr char kValueNull = 'N';
constexpr char kValueInteger = 'I';
constexpr char kValueReal = 'F';
constexpr char kValueText = 'T';
constexpr char kValueBlob = 'B';

// ---- Codes -------------------------------------------------------------------------------------------------------

constexpr uint32_t kCodeEnd = 1;    // the answer has ended; or the request has, whose last message was full
constexpr uint32_t kCodeError = 2;  // the answer has ended with an error frame
constexpr uint32_t kCodeWakeUp = 3; // never sent: a process leaves it in its own buffer to wake its own thread

} // namespace sqlhost
