// A client of the test's own that does not keep to the rules: it alone gets the error, and the server goes on.

#include <semaphore.h>
#include <unistd.h>

#include "client/answerreader.h"
#include "client/connection.h"
#include "client/runtime.h"
#include "serverfixture.h"
#include "text.h"

namespace kemsd::test {
namespace {

using sqlhost::AnswerReader;
using sqlhost::Connection;
using sqlhost::FieldReader;
using sqlhost::ServerLink;
using testing::ElementsAre;
using testing::SizeIs;

constexpr size_t kMessage = sqlhost::kMessageBytes;

std::string frame(char type, const std::string& payload, uint32_t length)
{
    std::string bytes(1, type);
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
    return bytes + payload;
}

std::string frame(char type, const std::string& payload)
{
    return frame(type, payload, static_cast<uint32_t>(payload.size()));
}

class SqlProtocol : public SqlServer {
protected:
    SqlProtocol() { serve(); }

    Connection& connection() { return link_.connection(); }
    KEM_PSDCTX_T context() { return runtime_.context(); }
    void sendRaw(const std::string& bytes) { connection().channel().send(context(), bytes, true); }
    void sendCode(uint32_t code) { connection().channel().sendCode(context(), code); }

    // The answer as text: its frames' types, the first value of each row, and errors' words.
    std::string answer()
    {
        std::string all;
        AnswerReader reader(context(), connection().channel());
        while (reader.next()) {
            FieldReader fields(reader.payload());
            all += reader.type();
            if (reader.type() == sqlhost::kFrameRow) {
                all += fields.number<char>();
                all += fields.text();
            }
            if (reader.type() == sqlhost::kFrameError) {
                fields.number<uint32_t>();
                all += fields.rest();
            }
        }
        return all;
    }
    std::string ask(const std::string& sql)
    {
        connection().ask(sqlhost::kRequestSql, sql);
        return answer();
    }
    // Neither this conversation nor anybody else's has suffered.
    void expectAllIsWell()
    {
        EXPECT_EQ("CRI7D", ask("SELECT 7"));
        EXPECT_EQ("8", value("SELECT 8"));
    }

    sqlhost::ClientRuntime runtime_;
    ServerLink link_{runtime_.context(), directory()};
};

// ---- Requests that make no sense ---------------------------------------------------------------------------------

TEST_F(SqlProtocol, UnknownRequestIsRefused)
{
    sendRaw(frame('?', ""));
    EXPECT_EQ("Eunknown request 0x3f", answer());
    sendRaw(frame('\0', std::string(10000, '\0')));
    EXPECT_EQ("Eunknown request 0x00", answer());
    expectAllIsWell();
}

TEST_F(SqlProtocol, RequestWithoutAWholeHeadIsRefused)
{
    for (const size_t length : {1u, 4u}) {
        sendRaw(std::string(length, 'Q'));
        EXPECT_EQ("Ea request begins with a type and a length", answer());
    }
    expectAllIsWell();
}

TEST_F(SqlProtocol, OverlongStatementIsRefusedAndReadToItsEnd)
{
    const std::string refusal = "Ea request of this kind may have 1,048,576 bytes, this one says that it has ";
    EXPECT_EQ(refusal + "1,048,577 bytes", ask(std::string(1048577, ' ')));
    EXPECT_EQ(refusal + "2,040,000 bytes", ask(std::string(2040000, ' ')));
    EXPECT_EQ(refusal + "2,039,995 bytes", ask(std::string(2040 * 1000 - 5, ' '))); // the last message is full
    expectAllIsWell();
    const std::string longest = "SELECT 1" + std::string(1048576 - 8, ' ');
    EXPECT_EQ("CRI1D", ask(longest));
}

TEST_F(SqlProtocol, LengthThatIsNotTrueIsRefused)
{
    sendRaw(frame('Q', "SELECT 1", 4000000000));
    EXPECT_EQ("Ea request of this kind may have 1,048,576 bytes, this one says that it has 4,000,000,000 bytes",
              answer());
    sendRaw(frame('Q', "SELECT 1", 9));
    EXPECT_EQ("Ethe request is shorter than it says", answer());
    sendRaw(frame('Q', "SELECT 1", 7));
    EXPECT_EQ("Ethe request is longer than it says", answer());
    sendRaw(frame('Q', std::string(3 * kMessage, ' '), 2 * kMessage));
    EXPECT_EQ("Ethe request is longer than it says", answer());
    sendRaw(frame('S', "?"));
    EXPECT_EQ("Ea request of this kind may have 0 bytes, this one says that it has 1 byte", answer());
    expectAllIsWell();
}

TEST_F(SqlProtocol, FullLastMessageWaitsForTheCodeThatEndsTheRequest)
{
    const std::string statement = "SELECT 1" + std::string(kMessage - 5 - 8, ' ');
    sendRaw(frame('Q', statement, static_cast<uint32_t>(statement.size() + 1)));
    sendCode(sqlhost::kCodeEnd);
    EXPECT_EQ("Ethe request is shorter than it says", answer());
    sendRaw(frame('Q', statement));
    sendCode(sqlhost::kCodeEnd);
    EXPECT_EQ("CRI1D", answer());
}

TEST_F(SqlProtocol, CodeInPlaceOfARequestIsRefused)
{
    for (const uint32_t code : {sqlhost::kCodeEnd, sqlhost::kCodeError, sqlhost::kCodeWakeUp, 0xFFFFFFFDu}) {
        sendCode(code);
        EXPECT_EQ("Ea request begins with a type and a length", answer());
    }
    sendRaw(frame('Q', std::string(kMessage - 5, ' '), kMessage));
    sendCode(77);
    EXPECT_EQ("Ea code where a request should go on", answer());
    expectAllIsWell();
}

TEST_F(SqlProtocol, TextWithANulByteIsRefused)
{
    EXPECT_EQ("Ethe text holds a NUL byte: it is no SQL", ask(std::string("SELECT 1\0", 9)));
    EXPECT_EQ("", ask(" ;\n; "));
    EXPECT_EQ("", ask("-- nothing"));
    EXPECT_EQ("", ask(""));
    expectAllIsWell();
}

// ---- Shared memory written past the library ----------------------------------------------------------------------

TEST_F(SqlProtocol, SizesInSharedMemoryAreNotTrusted)
{
    sqlhost::ServerDirectory place(directory());
    connection();
    OV_SHAREDMEM_SEG_LIST_T* list = nullptr;
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    KEM_IPCKEY_T key = -1;
    char* base = nullptr;
    KEM_BOOL_T create = FALSE;
    ASSERT_EQ(0, KemFindShareMemSeg(context(), place.exchange(1).c_str(), SHM_CLIENT, &list, TRUE, 0, 0, &create,
                                    nullptr, &segment));
    ASSERT_EQ(0,
              KemCreateSharedMemSeg(context(), place.exchange(1).c_str(), SHM_CLIENT, 4, 0, segment, -1, &key, &base));
    KemSetSharedMemSegBuffer(context(), segment, base);
    for (const uint32_t size : {0u, 1u, 2040u, 2041u, 0x80000000u, 0xFFFFFFFFu}) {
        ASSERT_EQ(0, KemSdShSemSetRequest(context(), 2, segment->pShSemSet, -1)); // the buffer to the server is free
        const SHMEM_HEADER_T header = {0, size};
        memset(base, 0xEE, SHMEM_CHUNK_SIZE);
        memcpy(base, &header, sizeof header);
        ASSERT_EQ(0, KemSdShSemSetClear(context(), 1, segment->pShSemSet)); // there is something to read
        if (size >= kMessage) sendCode(sqlhost::kCodeEnd);                  // it counts as a full message
        EXPECT_EQ(size > 1 ? "Eunknown request 0xee" : "Ea request begins with a type and a length", answer()) << size;
    }
    KemDeleteSharedMemSeg(context(), list);
    expectAllIsWell();
}

// ---- At the door -------------------------------------------------------------------------------------------------

TEST_F(SqlProtocol, RubbishAtTheDoorKeepsNobodyOut)
{
    const sqlhost::ServerDirectory place(directory());
    for (const size_t length : {1u, 31u, 32u, 33u, 4096u}) {
        sqlhost::Fifo toServer(context(), fifoToServer(place)), toClient(context(), fifoToClient(place));
        const std::string rubbish(length, '!');
        ASSERT_EQ(ssize_t(length), ::write(toServer.handle(), rubbish.data(), length));
        ASSERT_EQ(ssize_t(length), ::write(toClient.handle(), rubbish.data(), length));
        EXPECT_EQ("1", value("SELECT 1")) << length;
    }
}

TEST_F(SqlProtocol, HelloOfAClientThatHoldsNoLockIsNotAnswered)
{
    const sqlhost::ServerDirectory place(directory());
    sqlhost::Fifo toServer(context(), fifoToServer(place)), toClient(context(), fifoToClient(place));
    for (const int64_t byte : {int64_t{-1}, int64_t{getpid()}, INT64_MAX}) {
        sqlhost::Hello hello;
        hello.pid = getpid();
        hello.lockByte = byte;
        ASSERT_TRUE(toServer.put(context(), hello));
    }
    EXPECT_THAT(clients(), SizeIs(1)); // who asks came after them
    sqlhost::Welcome welcome;
    EXPECT_FALSE(toClient.take(context(), welcome));
}

TEST_F(SqlProtocol, AnswersForAClientThatDidNotWaitAreNotTakenByTheNext)
{
    const sqlhost::ServerDirectory place(directory());
    sqlhost::Fifo toClient(context(), fifoToClient(place));
    sqlhost::Welcome stale;
    stale.clientPid = 1;
    stale.segment = 99;
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(toClient.put(context(), stale));
    EXPECT_EQ("1", value("SELECT 1"));
}

TEST_F(SqlProtocol, ClientsBeyondTheLimitAreToldSo)
{
    OV_SHAREDMEM_SEG_LIST_T* segments = nullptr;
    const sqlhost::ServerDirectory place(directory());
    {
        std::vector<std::unique_ptr<Connection>> all;
        for (int i = 0; i < 100; ++i) all.push_back(std::make_unique<Connection>(context(), place, &segments));
        all[99]->ask(sqlhost::kRequestSql, "SELECT 1");
        AnswerReader reader(context(), all[99]->channel());
        while (reader.next()) {
        }
        EXPECT_THAT(trySql({"SELECT 1"}), FailsSaying("the server with process id " + std::to_string(server().pid()) +
                                                      " serves as many clients as it can"));
    }
    EXPECT_EQ("1", value("SELECT 1"));
    KemDeleteSharedMemSeg(context(), segments);
    EXPECT_EQ("20", status("segments"));
}

} // namespace
} // namespace kemsd::test
