#include "tests/unit/fixture.h"

/* AttrLoad's result and number, StringLoad's result and its `width` bytes, and what they log. */
static std::string load(const std::string &content, size_t width)
{
    std::ofstream("key") << content;
    unsigned int number = 0;
    std::string dst(width, '#');
    const int result = AttrLoad(AT_FDCWD, "key", "%u", &number);
    const int length = StringLoad(AT_FDCWD, "key", dst.data(), width);
    dst = to_string(result) + " " + to_string(number) + " " + to_string(length) + dst + "\n";
    return dst + std::exchange(Unit::log, "");
}

TEST_F(Unit, AttributesAtEveryBoundary)
{
    const std::string attr = "error: AttrLoad(): ", text = "error: StringLoad(): ", pad(253, ' '), file = " file key\n";
    EXPECT_EQ("-1 0 0##\n" + attr + "Empty" + file, load("", 2));
    EXPECT_EQ("-1 0 0\0\0\n"s, load("\n", 2));
    EXPECT_EQ("1 12 812 words\n", load("12 words\n", 8));
    EXPECT_EQ("0 0 -1####\n" + text + "String too long in key: words\n", load("words\n", 4));
    EXPECT_EQ("1 1 31\0.\n"s, load("1\0.\n"s, 3));
    EXPECT_EQ("1 1 -1##\n" + text + "String too long in key: 1\n", load("1\0.\n"s, 2));
    EXPECT_EQ("-1 0 -1##\n" + attr + "Malformed" + file + text + "Malformed" + file, load("1\n\0"s, 2));
    EXPECT_EQ("1 7 2547" + pad + "\n", load("7" + pad + "\n", 254));
    EXPECT_EQ("-1 0 -1##\n" + attr + "Oversized" + file + text + "Oversized" + file, load("77" + pad + "\n", 2));
    char *buf = nullptr;
    const FdGuard page(open("/sys/kernel/uevent_seqnum", O_RDONLY)); /* calls itself a page long, and is not */
    EXPECT_TRUE(FileLoad(page.fd, &buf) < 0 && !buf);

    fs::create_hard_link("key", "same");
    /* Written in place over all that was there; and a text that the file system has no room for. */
    EXPECT_TRUE(AttrStore(AT_FDCWD, "key", "%.*s\n", 32, "") == 1 && fs::file_size("same") == 1);
    EXPECT_TRUE(AttrStore(AT_FDCWD, "key", "%070000u\n", 1) == -1 && fs::file_size("same") == 65536);
}
