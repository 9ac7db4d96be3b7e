#include "serve/belongings.h"
#include "serve/requests.h"
#include "wire/fields.h"

namespace sqlhost {

void answerPause(Desk& desk, std::string_view limit, Answer& answer)
{
    constexpr char kSenseless[] = "a pause has a limit of 1 to 86,400 seconds";
    FieldReader fields(limit, kSenseless);
    const uint32_t seconds = fields.number<uint32_t>();
    if (!fields.atEnd() || seconds == 0 || seconds > kLongestPause) throw Failure(kSenseless);
    desk.belongings.pause.begin(desk.database, desk.channel, desk.clientPid, seconds);
    answer.done(0);
}

void answerResume(Desk& desk, std::string_view, Answer& answer)
{
    answer.done(static_cast<uint64_t>(desk.belongings.pause.end().count()));
}

} // namespace sqlhost
