// A message call-back that keeps what it is called with.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/memory.h>

#include <ostream>
#include <vector>

namespace kemsd::test {

struct Message {
    void* netCtx;
    int number;
    int level;
    OV_ULONG_T first;
    OV_ULONG_T second;

    bool operator==(const Message&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Message& m)
    {
        return out << m.number << " level " << m.level << ", " << m.first << ", " << m.second;
    }
};

inline std::vector<Message>& messages()
{
    static std::vector<Message> received;
    return received;
}

constexpr int kMessageAnswer = 4711;

inline int recordMessage(void* netCtx, int number, int level, void* first, int firstType, void* second, int secondType)
{
    EXPECT_EQ(firstType, 6);
    EXPECT_EQ(secondType, 6);
    messages().push_back({netCtx, number, level, *static_cast<OV_ULONG_T*>(first), *static_cast<OV_ULONG_T*>(second)});
    return kMessageAnswer;
}

} // namespace kemsd::test
