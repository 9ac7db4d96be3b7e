#include "serve/requests.h"

#include <algorithm>
#include <iterator>

namespace sqlhost {
namespace {

constexpr RequestKind kKinds[] = {
    {kRequestSql, "statement", kLongestSql, answerSql},
    {kRequestStatus, "status", 0, answerStatus},
    {kRequestImport, "import", kLongestImport, answerImport},
    {kRequestRows, "import", kLongestRows, answerRows},
    {kRequestInsert, "import", 0, answerInsert},
    {kRequestPause, "backup", sizeof(uint32_t), answerPause},
    {kRequestResume, "backup", 0, answerResume},
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
