/* Fuzz target: datagrams through the decoder of `mwctl sniff` and all its renderings. */
#include "mwctl/decode.h"
#include "mwctl/sniff_tally.h"

using namespace mwctl;

/* What reaches a terminal holds no control character but the newlines between lines, and lists end with their bytes. */
static void render(const Message &message)
{
    const Json document = message_json(message);
    const std::string text = message_summary(message) + message_details(document) + document.dump(-1, ' ', true);
    size_t held = message.header ? sizeof(Hdr) : 0;
    for (const WireVDisk &vdisk : message.vdisks)
        held += sizeof(VDiskEntry) + (vdisk.membership.size() + vdisk.frontends.size()) * sizeof(MemberEntry);
    if (text.find_first_of("\033\r\t\b\177") != std::string::npos || held > message.bytes)
        abort();
}

/* In a block of its own size, so that the sanitizer sees any read beyond it. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<char> datagram(data, data + size);
    const Message message = decode({datagram.data(), datagram.size()});
    render(message);
    SniffTally tally;
    tally.add("192.0.2.1", 8000, message);
    tally.add("192.0.2.2", 8000, message);
    if (tally.rows().size() != 2)
        abort();
    tally.troubles();
    return 0;
}
