// SQL text cut into what a server takes as one request: a statement, or all from BEGIN to its COMMIT or ROLLBACK,
// because a transaction does not outlive its request.
#pragma once

#include <functional>
#include <string>

namespace sqlhost {

class SqlReader {
public:
    // `nextByte` gives the text, and a negative number at its end.
    explicit SqlReader(std::function<int()> nextByte) : nextByte_(std::move(nextByte)) {}

    // Takes the next request: false at the end of the text. It reads no byte further than the request's last semicolon.
    bool next();
    const std::string& text() const { return text_; }
    // The line on which the text began, counted from 1.
    size_t line() const { return line_; }

private:
    bool readStatement(std::string& statement);

    std::function<int()> nextByte_;
    std::string text_;
    size_t line_ = 1;
    size_t nextLine_ = 1;
};

} // namespace sqlhost
