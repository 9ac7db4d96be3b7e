#include "serve/requests.h"

#include <algorithm>
#include <iterator>

namespace sqlhost {
namespace {

constexpr RequestKind kKinds[] = {
    {kRequestSql, "statement", kLongestSql, answerSql},
    {kRequestStatus, "status", 0, answerStatus},
    {kRequestBye, "leaving", 0, nullptr},
};

} // namespace

const RequestKind* requestKind(char type)
{
    const auto kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                   [type](const RequestKind& other) { return other.type == type; });
    return kind == std::end(kKinds) ? nullptr : kind;
}

} // namespace sqlhost
