// The virtual camera and the forms in which it writes a log.

#include <gtest/gtest.h>

#include <string>

#include "tools/capture/record.h"

namespace {

TEST(RecordTest, IsWrittenInEveryFormOfLogcat) {
    const tools::Record record{1'700'000'000'012'345,   321, 4321, 'D', "camera",
                               "first\\ 1\nsecond \x01"};
    const struct {
        const char* format;
        std::string text;
    } cases[] = {
        {"brief", "D/camera  (  321): first\\ 1\nD/camera  (  321): second \x01\n"},
        {"process", "D(  321) first\\ 1  (camera)\nD(  321) second \x01  (camera)\n"},
        {"tag,printable", "D/camera  : first\\\\ 1\nD/camera  : second \\1\n"},
        {"thread,uid", "D( 1047:  321: 4321) first\\ 1\nD( 1047:  321: 4321) second \x01\n"},
        {"raw", "first\\ 1\nsecond \x01\n"},
        {"time",
         "11-14 22:13:20.012 D/camera  (  321): first\\ 1\n"
         "11-14 22:13:20.012 D/camera  (  321): second \x01\n"},
        {"threadtime,uid,year,usec,zone",
         "2023-11-14 22:13:20.012345 +0000  1047   321  4321 D camera  : first\\ 1\n"
         "2023-11-14 22:13:20.012345 +0000  1047   321  4321 D camera  : second \x01\n"},
        {"epoch,nsec,color",
         "\x1B[38;5;75m         1700000000.012345000   321  4321 D camera  : first\\ 1\x1B[0m\n"
         "\x1B[38;5;75m         1700000000.012345000   321  4321 D camera  : second \x01\x1B[0m\n"},
        {"long,uid,UTC",
         "[ 11-14 22:13:20.012 +0000  1047:  321: 4321 D/camera   ]\n"
         "first\\ 1\nsecond \x01\n\n"},
    };
    for (const auto& [name, text] : cases) {
        const auto format = tools::FormatOf(name);
        ASSERT_TRUE(format) << name;
        std::string written = "before ";
        AppendRecord(written, *format, record);
        EXPECT_EQ(written, "before " + text) << name;
    }

    // A clock since boot, and one that stands before 1970.
    const auto lineOf = [](const char* format, int64_t time) {
        std::string line;
        AppendRecord(line, *tools::FormatOf(format), {time, 1, 2, 'I', "a tag: of many", "text"});
        return line;
    };
    EXPECT_EQ(lineOf("monotonic", 4'000'000), "     4.000     1     2 I a tag: of many: text\n");
    EXPECT_EQ(lineOf("year", -1), "1969-12-31 23:59:59.999     1     2 I a tag: of many: text\n");

    for (const char* name : {"", "brief,", "brief,long", "Brief", "years"}) {
        EXPECT_FALSE(tools::FormatOf(name)) << name;
    }
}

}  // namespace
