#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "sd/memsys/memsys.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/tempdir.h"

using namespace kemsd::test;
using namespace std::string_literals;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;
char application[] = "app";

// A directory of its own in ZANTOPATH, and a record at its defaults.
class Config : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("ZANTOPATH", dir.path().c_str(), 1);
        if (record.NumThreadHeaps != 0) ovMemThreadHeapInit(0, nullptr, nullptr, 0);
        ovMemThreadHeapInit(1, nullptr, nullptr, 0);
    }

    // Reads this text as a configuration file.
    void read(const std::string& text)
    {
        FILE* file = fopen(dir.write("text", text).c_str(), "r");
        ASSERT_NE(file, nullptr);
        sd::memsys::readConfiguration(file);
        fclose(file);
    }

    // What reading this text prints.
    std::string printed(const std::string& text)
    {
        return inChild([&] {
                   read(text);
                   return 0;
               })
            .out;
    }

    TempDir dir;
};

std::string unknown(const std::string& word)
{
    return "\nUnknown keyword [" + word + "] in the memory configuration file\n";
}

std::string wrong(const std::string& word, const std::string& keyword)
{
    return "\nWrong keyword [" + word + "] in the memory configuration file after keyword [" + keyword + "]\n";
}

// A directory below the test's own whose name has exactly so many characters.
std::string directoryOfLength(const TempDir& dir, size_t length)
{
    std::string path = dir.path();
    while (path.size() < length) {
        const size_t left = length - path.size() - 1;
        path += '/';
        path.append(left > 202 ? 200 : left, 'd');
    }
    std::filesystem::create_directories(path + "/bin");
    return path;
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

constexpr size_t kLongestPath = 1024;
constexpr size_t kNameLength = 15; // "/bin/config.mem"

} // namespace

// ---- Locating the file

TEST_F(Config, ApplicationsOwnFileComesFirst)
{
    dir.write("bin/config.mem", "heapsize 2M");
    dir.write("bin/config.mem.app", "heapsize 1M");
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, FileForAllServesAnApplicationWithoutItsOwn)
{
    dir.write("bin/config.mem", "heapsize 3M");
    dir.write("bin/config.mem.other", "heapsize 1M");
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.HeapSize, 3u * 1048576);
    EXPECT_EQ(record.NumThreadHeaps, 16);
    EXPECT_EQ(record.MemoryControl, 1);
}

TEST_F(Config, DirectoryMayEndInASlash)
{
    dir.write("bin/config.mem", "heapsize 1M");
    setenv("ZANTOPATH", (dir.path() + "/").c_str(), 1);
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, WithoutTheVariableTheDirectoryIsTheLiteralWithBackslashes)
{
    dir.write("\\ZANTO\\/bin/config.mem", "heapsize 1M");
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    unsetenv("ZANTOPATH");
    ovMemThreadHeapGetArg(application, 0);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, NullApplicationNameGoesToTheFileForAll)
{
    dir.write("bin/config.mem", "heapsize 1M");
    dir.write("bin/config.mem.", "heapsize 2M");
    resetCalls();
    ovMemThreadHeapGetArg(nullptr, 0);
    EXPECT_EQ(calls(Call::fopen), 1);
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, EmptyApplicationNameStillHasItsPoint)
{
    char none[] = "";
    dir.write("bin/config.mem", "heapsize 1M");
    dir.write("bin/config.mem.", "heapsize 3M");
    ovMemThreadHeapGetArg(none, 0);
    EXPECT_EQ(record.HeapSize, 3u * 1048576);
}

TEST_F(Config, NoFileChangesNothing)
{
    Failing open(Call::fopen, EACCES);
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(open.hits(), 2);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_EQ(record.MemoryControl, 0);
}

TEST_F(Config, NoFileButOneAssumedIsAnEmptyFile)
{
    ovMemThreadHeapGetArg(application, 1);
    EXPECT_EQ(record.NumThreadHeaps, 16);
    EXPECT_EQ(record.MemoryControl, 1);
    EXPECT_EQ(record.HeapSize, 2097152u);
}

TEST_F(Config, DirectoryInPlaceOfTheFileReadsAsEmpty)
{
    std::filesystem::create_directories(dir.path("bin/config.mem"));
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.NumThreadHeaps, 16);
}

TEST_F(Config, PathThatFillsItsBufferIsOpened)
{
    const std::string longest = directoryOfLength(dir, kLongestPath - kNameLength);
    writeFile(longest + "/bin/config.mem", "heapsize 1M");
    setenv("ZANTOPATH", longest.c_str(), 1);
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.HeapSize, 1048576u) << "the application's name does not fit, the name without it does";
}

TEST_F(Config, PathBeyondItsBufferCannotBeOpened)
{
    const std::string tooLong = directoryOfLength(dir, kLongestPath - kNameLength + 1);
    writeFile(tooLong + "/bin/config.mem", "heapsize 1M");
    setenv("ZANTOPATH", tooLong.c_str(), 1);
    ovMemThreadHeapGetArg(application, 0);
    EXPECT_EQ(record.HeapSize, 2097152u);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    ovMemThreadHeapGetArg(application, 1);
    EXPECT_EQ(record.NumThreadHeaps, 16);
}

TEST_F(Config, HugeDirectoryAndApplicationNamesAreRefused)
{
    std::string huge(100000, 'x');
    dir.write("bin/config.mem", "heapsize 1M");
    ovMemThreadHeapGetArg(huge.data(), 0);
    EXPECT_EQ(record.HeapSize, 1048576u);
    record.NumThreadHeaps = 0;
    setenv("ZANTOPATH", huge.c_str(), 1);
    ovMemThreadHeapGetArg(huge.data(), 0);
    EXPECT_EQ(record.NumThreadHeaps, 0);
}

// ---- Keywords

TEST_F(Config, EveryKeywordSetsItsField)
{
    read(
        "numheaps 40 numthreadheaps 8 heapsize 1M shortheapsize 400K maxblock 32K memorylimit 64M\n"
        "maxshortmemorypoolsize 5 limitshortheapsforremove 3 freememoryinit 4 memoryblockscontrol shortmemoryoff\n"
        "nomemorycontrol\n");
    EXPECT_EQ(record.NumHeaps, 40);
    EXPECT_EQ(record.NumThreadHeaps, 8);
    EXPECT_EQ(record.HeapSize, 1048576u);
    EXPECT_EQ(record.ShortHeapSize, 400u * 1024);
    EXPECT_EQ(record.MaxAllocBlock, 32768u);
    EXPECT_EQ(record.MemoryLimit, 64u * 1048576);
    EXPECT_EQ(record.MaxShortMemoryPoolSize, 5);
    EXPECT_EQ(record.LimitShortHeapsForRemove, 3);
    EXPECT_EQ(record.FreeInitValue, 4);
    EXPECT_EQ(record.MemoryBlocksControl, 1);
    EXPECT_EQ(record.ShortMemoryOn, 0);
    EXPECT_EQ(record.MemoryControl, 0);
}

TEST_F(Config, KeywordsAndSuffixesIgnoreCase)
{
    read("HEAPSIZE 2m MaxBlock 8k");
    EXPECT_EQ(record.HeapSize, 2097152u);
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
    read("MEMORYLIMIT 1g ShortMemoryOff");
    EXPECT_EQ(record.MemoryLimit, 1073741824u);
    EXPECT_EQ(record.ShortMemoryOn, 0);
}

TEST_F(Config, MemoryLimitTurnsControlAndHeapsOn)
{
    read("nomemorycontrol memorylimit 20M");
    EXPECT_EQ(record.MemoryControl, 1);
    EXPECT_EQ(record.NumThreadHeaps, 16);
}

TEST_F(Config, MemoryLimitKeepsTheNumberOfThreadHeaps)
{
    read("numthreadheaps 5 memorylimit 20M");
    EXPECT_EQ(record.NumThreadHeaps, 5);
}

TEST_F(Config, BothFillKeywordsSetTheReleaseByte)
{
    read("mallocmemoryinit 3");
    EXPECT_EQ(record.FreeInitValue, 3);
    EXPECT_EQ(record.MallocInitValue, 0xFF);
    read("freememoryinit 7");
    EXPECT_EQ(record.FreeInitValue, 7);
    EXPECT_EQ(record.MallocInitValue, 0xFF);
}

TEST_F(Config, FillByteIsOneDigit)
{
    for (const std::string word : {"12", "x", "-", "+", "7K", "255", "-1"}) {
        EXPECT_EQ(printed("freememoryinit " + word), wrong(word, "freememoryinit"));
        EXPECT_EQ(printed("mallocmemoryinit " + word), wrong(word, "freememoryinit"));
        read("freememoryinit " + word);
        EXPECT_EQ(record.FreeInitValue, 0xAB);
    }
    EXPECT_EQ(printed("mallocmemoryinit 0 freememoryinit 9"), "");
}

TEST_F(Config, UnknownKeywordIsNamedAndSkipped)
{
    EXPECT_EQ(printed("heap 1M heapsize 1M"), unknown("heap") + unknown("1M"));
    read("heap heapsize 1M");
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, EveryKeywordMayBeTheLastWord)
{
    for (const char* keyword :
         {"numheaps", "numthreadheaps", "heapsize", "shortheapsize", "maxblock", "memorylimit", "mallocmemoryinit",
          "freememoryinit", "maxshortmemorypoolsize", "limitshortheapsforremove", "nomemorycontrol",
          "memoryblockscontrol", "shortmemoryoff"}) {
        EXPECT_EQ(printed(keyword), "");
        read(keyword);
    }
    EXPECT_EQ(record.HeapSize, 2097152u);
    EXPECT_EQ(record.MemoryLimit, 0u);
    EXPECT_EQ(record.FreeInitValue, 0xAB);
    EXPECT_EQ(record.ShortMemoryOn, 0);
}

TEST_F(Config, ValueIsNeverReadAsAKeyword)
{
    EXPECT_EQ(printed("heapsize maxblock 8K"), wrong("maxblock", "heapsize") + unknown("8K"));
}

// ---- Values

TEST_F(Config, BareNumberStandsAsItIs)
{
    read("heapsize 12345 memorylimit 0");
    EXPECT_EQ(record.HeapSize, 12345u);
    EXPECT_EQ(record.MemoryLimit, 0u);
}

TEST_F(Config, NumberBeyondItsUnitGivesOneTebibyte)
{
    constexpr OV_ULONGLONG_T tebibyte = OV_ULONGLONG_T{1} << 40;
    for (const char* text : {"20000G", "1024G", "1048576M", "1073741824K", "99999999999999999999999K"}) {
        read("memorylimit "s + text);
        EXPECT_EQ(record.MemoryLimit, tebibyte) << text;
    }
    read("memorylimit 1023G");
    EXPECT_EQ(record.MemoryLimit, 1023 * (OV_ULONGLONG_T{1} << 30));
    read("memorylimit 1048575M");
    EXPECT_EQ(record.MemoryLimit, 1048575 * (OV_ULONGLONG_T{1} << 20));
    read("memorylimit 1073741823k");
    EXPECT_EQ(record.MemoryLimit, 1073741823 * (OV_ULONGLONG_T{1} << 10));
}

TEST_F(Config, NarrowFieldKeepsTheLow32Bits)
{
    read("heapsize 4294967297 shortheapsize 4G maxblock 2048G numheaps 4294967300");
    EXPECT_EQ(record.HeapSize, 1u);
    EXPECT_EQ(record.ShortHeapSize, 0u);
    EXPECT_EQ(record.MaxAllocBlock, 0u);
    EXPECT_EQ(record.NumHeaps, 4);
}

TEST_F(Config, NegativeNumberIsCutToTheFieldsWidth)
{
    EXPECT_EQ(printed("numheaps -1"), "");
    read("numheaps -1 maxshortmemorypoolsize -2 heapsize -1 memorylimit -1");
    EXPECT_EQ(record.NumHeaps, -1);
    EXPECT_EQ(record.MaxShortMemoryPoolSize, -2);
    EXPECT_EQ(record.HeapSize, 0xFFFFFFFFu);
    EXPECT_EQ(record.MemoryLimit, ~OV_ULONGLONG_T{0});
}

TEST_F(Config, BadValueIsNamedWithItsKeywordAndStoresNothing)
{
    for (const std::string word : {"2MB", "64mb", "2T", "0K", "0M", "00G", "x", "M", "1.5G", "-", "5kk", "0x10"}) {
        EXPECT_EQ(printed("heapsize " + word), wrong(word, "heapsize"));
        EXPECT_EQ(printed("LimitShortHeapsForRemove " + word), wrong(word, "limitshortheapsforremove"));
        read("heapsize " + word);
        EXPECT_EQ(record.HeapSize, 2097152u) << word;
    }
}

TEST_F(Config, ParsingGoesOnAfterABadValue)
{
    EXPECT_EQ(printed("heapsize 2MB maxblock 8K shortheapsize 1X"),
              wrong("2MB", "heapsize") + wrong("1X", "shortheapsize"));
    read("heapsize 2MB maxblock 8K");
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
}

// ---- Words and comments

TEST_F(Config, SpacesTabsAndNewlinesSeparate)
{
    EXPECT_EQ(printed(" \t\n\n  heapsize\t \n 1M\t\n\n maxblock\n8K"), "");
    read(" \t\n\n  heapsize\t \n 1M\t\n\n maxblock\n8K");
    EXPECT_EQ(record.HeapSize, 1048576u);
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
}

TEST_F(Config, EmptyFileSaysNothing)
{
    EXPECT_EQ(printed(""), "");
    EXPECT_EQ(printed("\n\n \t"), "");
    EXPECT_EQ(printed("#"), "");
}

TEST_F(Config, CarriageReturnBelongsToTheWord)
{
    EXPECT_EQ(printed("heapsize\r\n1M\r\n"), unknown("heapsize\r") + unknown("1M\r"));
    EXPECT_EQ(printed("heapsize 4096\r\n"), wrong("4096\r", "heapsize"));
    EXPECT_EQ(printed("heapsize 1M\r\n"), wrong("1M\r", "heapsize"));
    EXPECT_EQ(printed("heapsize \r\n"), wrong("\r", "heapsize"));
}

TEST_F(Config, CommentRunsToTheEndOfItsLine)
{
    EXPECT_EQ(printed("# heapsize 3M\nheapsize # the size\n 1M # more # and more\nmaxblock 8K # last"), "");
    read("# heapsize 3M\nheapsize # the size\n 1M # more # and more\nmaxblock 8K # last");
    EXPECT_EQ(record.HeapSize, 1048576u);
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
}

TEST_F(Config, CommentDropsTheKeywordThatItTouches)
{
    EXPECT_EQ(printed("heapsize#the size\n1M maxblock 8K"), unknown("1M"));
    read("heapsize#the size\nmaxblock 8K");
    EXPECT_EQ(record.HeapSize, 2097152u);
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
}

TEST_F(Config, CommentDropsTheValueThatItTouches)
{
    EXPECT_EQ(printed("heapsize 3M#\n1M"), "");
    read("heapsize 3M#\n1M");
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, OneCommentSkips4096CharactersAtMost)
{
    EXPECT_EQ(printed("#" + std::string(4096, 'c') + "\nmaxblock 8K"), "");
    EXPECT_EQ(printed("#" + std::string(4095, 'c') + "\nmaxblock 8K"), "");
    EXPECT_EQ(printed("#" + std::string(4096, 'c') + "tail\n"), unknown("tail"));
    read("#" + std::string(4096, 'c') + "heapsize 1M");
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, LastWordNeedsNoNewline)
{
    read("heapsize 1M");
    EXPECT_EQ(record.HeapSize, 1048576u);
    read("memoryblockscontrol");
    EXPECT_EQ(record.MemoryBlocksControl, 1);
}

TEST_F(Config, OfALongWordTheFirst4095CharactersCount)
{
    EXPECT_EQ(printed(std::string(4095, 'w')), unknown(std::string(4095, 'w')));
    EXPECT_EQ(printed(std::string(4096, 'w')), unknown(std::string(4095, 'w')));
    EXPECT_EQ(printed("heapsize " + std::string(5000, 'w')), wrong(std::string(4095, 'w'), "heapsize"));
    read("heapsize " + std::string(4000, '0') + "1048576");
    EXPECT_EQ(record.HeapSize, 1048576u);
}

TEST_F(Config, MegabyteLinesAreReadToTheirEnd)
{
    const std::string line(1 << 20, 'w');
    EXPECT_EQ(printed(line + "\nheapsize 1M"), unknown(line.substr(0, 4095)));
    read(line + "\nheapsize 1M");
    EXPECT_EQ(record.HeapSize, 1048576u);
    read(std::string(1 << 20, ' ') + "maxblock 8K");
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
    read(std::string(1 << 20, '#') + "\nmaxblock 16K");
    EXPECT_EQ(record.MaxAllocBlock, 16384u);
}

TEST_F(Config, ZeroByteEndsAWordsText)
{
    EXPECT_EQ(printed("heapsize\0junk 1M\0junk maxblock 8K"s), "");
    read("heapsize\0junk 1M\0junk \0\0 \0x maxblock 8K"s);
    EXPECT_EQ(record.HeapSize, 1048576u);
    EXPECT_EQ(record.MaxAllocBlock, 8192u);
}

TEST_F(Config, BinaryFileIsReadToItsEnd)
{
    std::string bytes;
    for (int i = 0; i < 65536; ++i) bytes += static_cast<char>((i * 2654435761u) >> 13);
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    const Ended ended = inChild([&] {
        read(bytes + "\nnone heapsize 1M\n");
        return record.HeapSize == 1048576u ? 0 : 1;
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(printed("\xFF\xFE\x80"), unknown("\xFF\xFE\x80"));
}

TEST_F(Config, ValueMayFollowAfterLinesAndComments)
{
    read("numheaps\n\n#\n33\nnumthreadheaps\t9");
    EXPECT_EQ(record.NumHeaps, 33);
    EXPECT_EQ(record.NumThreadHeaps, 9);
}
