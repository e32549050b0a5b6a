#include "tests/unit/fixture.h"

/* What AttrLoad, StringLoad and FileLoad return, each with what it loaded. */
static std::string load(const std::string &content, size_t width)
{
    std::ofstream("key") << content;
    const FdGuard file(open("key", O_RDONLY));
    unsigned int number = 0;
    BufGuard whole(nullptr);
    std::string text(width, '#');
    const int conversions = AttrLoad(AT_FDCWD, "key", "%u", &number);
    const int length = StringLoad(AT_FDCWD, "key", text.data(), width);
    EXPECT_EQ(content.size(), FileLoad(file.fd, &whole.buf));
    EXPECT_EQ(content, std::string(whole.buf ? whole.buf : "", content.size()));
    return to_string(conversions) + " " + to_string(number) + ", " + to_string(length) + " " + text;
}

TEST_F(Unit, AttributesAtEveryBoundary)
{
    const std::string pad(253, ' ');
    EXPECT_EQ("-1 0, 0 ##", load("", 2));
    EXPECT_EQ(std::string("-1 0, 0 \0\0", 10), load("\n", 2));
    EXPECT_EQ("-1 0, -1 ##", load("1", 2));
    EXPECT_EQ("1 12, 8 12 words", load("12 words\n", 8));
    EXPECT_EQ("1 12, -1 #######", load("12 words\n", 7));
    EXPECT_EQ(std::string("1 1, 3 1\0.", 10), load({"1\0.\n", 4}, 3));
    EXPECT_EQ("1 7, 254 7" + pad, load("7" + pad + "\n", 254));
    EXPECT_EQ("-1 0, -1 ##", load("77" + pad + "\n", 2));
}
