#include "tests/unit/fixture.h"

using namespace std::string_literals;

/* What a file reads as: a number, a text in a field of that width, which is full of # before, and a whole file. */
TEST_F(Unit, AttributesAtEveryBoundary)
{
    const std::string blanks(253, ' '); /* with a digit and the newline the longest value */
    const struct {
        std::string content;
        size_t width;
        int conversions;
        unsigned int number;
        int length;
        std::string text;
    } rows[] = {
        {"", 2, -1, 0, 0, "##"},
        {"\n", 2, -1, 0, 0, "\0\0"s},
        {"1", 2, -1, 0, -1, "##"}, /* no newline */
        {"12 words\n", 8, 1, 12, 8, "12 words"},
        {"12 words\n", 7, 1, 12, -1, "#######"},
        {"1\0.\n"s, 3, 1, 1, 3, "1\0."s},
        {"7" + blanks + "\n", 254, 1, 7, 254, "7" + blanks},
        {"77" + blanks + "\n", 2, -1, 0, -1, "##"},
    };
    for (const auto &row : rows) {
        std::ofstream("key") << row.content;
        unsigned int number = 0;
        EXPECT_EQ(row.conversions, AttrLoad(AT_FDCWD, "key", "%u", &number)) << row.content;
        EXPECT_EQ(row.number, number) << row.content;
        std::string text(row.width, '#');
        EXPECT_EQ(row.length, StringLoad(AT_FDCWD, "key", text.data(), row.width)) << row.content;
        EXPECT_EQ(row.text, text) << row.content;
        const FdGuard file(open("key", O_RDONLY));
        BufGuard whole(nullptr);
        ASSERT_EQ(row.content.size(), FileLoad(file.fd, &whole.buf)) << row.content;
        EXPECT_EQ(row.content, std::string(whole.buf ? whole.buf : "", row.content.size()));
    }
}
