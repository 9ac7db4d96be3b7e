// The prompt. Statements go to the server as they are typed; a key pressed while the answer comes gives the
// conversation up, which is what ends the statement there, and the next statement begins a new one.
#include <fcntl.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/asker.h"
#include "client/commands.h"
#include "client/keywatch.h"
#include "client/runtime.h"
#include "client/sqlreader.h"
#include "sqltext.h"

namespace sqlhost {
namespace {

constexpr std::string_view kPrompt = "sqlhost> ";
constexpr std::string_view kPromptForMore = "   ...> ";

bool isSpace(char c) { return isspace(static_cast<unsigned char>(c)); }

std::string_view trimmed(std::string_view line)
{
    while (!line.empty() && isSpace(line.front())) line.remove_prefix(1);
    while (!line.empty() && isSpace(line.back())) line.remove_suffix(1);
    return line;
}

class Shell {
public:
    Shell(KEM_PSDCTX_T context, const std::string& directory) : context_(context), link_(context, directory)
    {
        KemSdConsoleInit(context_, &console_);
    }
    ~Shell() { KemSdConsoleTerm(context_, &console_); }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    // Throws Failure when there is no server to begin with.
    void run();

private:
    void write(std::string_view text);
    bool read();
    bool nextLine();
    int nextByte();
    void answer(const std::string& request);
    void ask(const std::string& request);
    void tellStopped();

    KEM_PSDCTX_T context_;
    ServerLink link_;
    KEM_CONSOLEHDL_T console_;
    ResultPrinter printer_{false, ResultPrinter::Style::pieces};
    TypedAhead ahead_; // not taken yet
    std::string line_; // of the terminal, and how much of it is taken
    size_t at_ = 0;
    bool inStatement_ = false;
    bool ended_ = false;
};

void Shell::write(std::string_view text)
{
    fflush(stdout);
    if (KemSdConsoleWrite(context_, &console_, text.size(), text.data()) != 0)
        throw Failure(sqlhost::text("cannot write to the terminal: %s", strerror(context_->osRetCode)));
}

// Waits for more; false at the end of the input. A terminal that is gone ends it too.
bool Shell::read()
{
    char bytes[4096];
    KEM_INT_T got = 0;
    while (KemSdFileRead(context_, console_.hTermIn, bytes, sizeof bytes, &got) != 0)
        if (context_->osRetCode != EINTR) return false;
    ahead_.text.append(bytes, static_cast<size_t>(got));
    return got > 0;
}

// What has been typed of the line already is shown behind the prompt, as if it had been typed there.
bool Shell::nextLine()
{
    if (ended_) return false;
    size_t end = ahead_.text.find('\n');
    write(inStatement_ ? kPromptForMore : kPrompt);
    if (end == std::string::npos) write(ahead_.text);
    for (; end == std::string::npos; end = ahead_.text.find('\n')) {
        ended_ = ahead_.ended || !read();
        if (ended_) return write("\n"), false;
    }
    line_ = ahead_.text.substr(0, end + 1);
    ahead_.text.erase(0, end + 1);
    at_ = 0;
    const std::string_view word = trimmed(line_);
    ended_ = !inStatement_ && (word == ".quit" || word == "exit");
    return !ended_;
}

int Shell::nextByte()
{
    if (at_ == line_.size() && !nextLine()) return -1;
    const char c = line_[at_++];
    inStatement_ = inStatement_ || !isSpace(c);
    return static_cast<unsigned char>(c);
}

void Shell::run()
{
    link_.connection();
    for (SqlReader reader([this] { return nextByte(); }); reader.next(); inStatement_ = false) {
        if (ended_) throw Failure("the last statement does not end with \";\", and was not run");
        answer(std::string(trimmed(reader.text())));
    }
}

// A refusal ends the statement, not the shell. What has come of its result is shown.
void Shell::answer(const std::string& request)
try {
    ask(request);
} catch (const Failure& failure) {
    printer_.stop();
    fflush(stdout);
    const auto* const error = dynamic_cast<const ServerError*>(&failure);
    const bool placed = error && error->place != kNoPlace && request.find('\n') != std::string::npos;
    const std::string line = placed ? text("line %zu: ", lineAt(request, error->place)) : "";
    fprintf(stderr, "sqlhost: %s%s\n", line.c_str(), failure.what());
}

void Shell::ask(const std::string& request)
{
    Connection& connection = link_.connection();
    {
        const KeyWatch watch(context_, ahead_, [&] { connection.channel().giveUp(nullptr); });
        try {
            return askAndPrint(connection, kRequestSql, request, printer_);
        } catch (const ServerError&) {
            throw;
        } catch (const Failure&) {
            if (!watch.pressed()) throw;
        }
    }
    link_.leave();
    tellStopped();
}

void Shell::tellStopped()
{
    if (!printer_.stop()) throw Failure(text("stopped: %s", kOutcomeUnknown));
    printer_.flush();
}

} // namespace

void shellOnServer(const std::string& directory)
{
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) return sqlOnServer(directory, {}, false);
    ClientRuntime runtime;
    Shell(runtime.context(), directory).run();
}

} // namespace sqlhost
