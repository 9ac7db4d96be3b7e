#include "printed.h"

#include <unistd.h>

#include "text.h"

namespace sqlhost {

std::string printedBy(FILE* stream, const std::function<void()>& body)
{
    FILE* const kept = tmpfile();
    if (!kept) throw Failure("cannot make a temporary file");
    fflush(stream);
    const int earlier = dup(fileno(stream));
    dup2(fileno(kept), fileno(stream));
    body();
    fflush(stream);
    dup2(earlier, fileno(stream));
    close(earlier);
    std::string printed(static_cast<size_t>(ftell(kept)), '\0');
    rewind(kept);
    printed.resize(fread(printed.data(), 1, printed.size(), kept));
    fclose(kept);
    return printed;
}

} // namespace sqlhost
