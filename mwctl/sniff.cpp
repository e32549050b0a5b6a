/* sniff: every datagram of the cluster as it arrives here. */
#include "mwctl/command.h"
#include "mwctl/decode.h"
#include "mwctl/failure.h"
#include "mwctl/sniff_socket.h"
#include "mwctl/sniff_tally.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace mwctl
{

struct SniffOptions {
    std::optional<std::string> interface;
    bool verbose = false;
    uint64_t count = 0;  /* 0: without end */
    double seconds = -1; /* negative: without end */
};

static int stop_event = -1;

static void stop(int)
{
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = write(stop_event, &one, sizeof(one));
}

/* The first SIGINT or SIGTERM asks for the end, which prints the summary; a second one ends the program at once. */
static void stop_on_signals()
{
    stop_event = eventfd(0, EFD_CLOEXEC);
    if (stop_event < 0)
        give_up("cannot make an eventfd");
    struct sigaction action = {};
    action.sa_handler = stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

class Sniffer
{
  public:
    Sniffer(const Options &options, const SniffOptions &sniff_options)
        : options_(options), sniff_options_(sniff_options), style_(options.style())
    {
    }
    int run();

  private:
    enum class Event { datagram, end, closed };

    Event wait(const SniffSocket &socket) const;
    void take(const Datagram &datagram);
    void print_line(const Datagram &datagram, const std::string &from, const Message &message);
    void print_document(const Datagram &datagram, const std::string &from, const Message &message);
    void say_drops(uint64_t dropped);
    void summarise() const;

    const Options &options_;
    const SniffOptions &sniff_options_;
    Style style_;
    SniffTally tally_;
    uint64_t taken_ = 0;
    uint64_t dropped_ = 0;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

/* A reader of the output who has gone is noticed while the wire is silent too. */
Sniffer::Event Sniffer::wait(const SniffSocket &socket) const
{
    for (;;) {
        int timeout = -1;
        if (sniff_options_.seconds >= 0) {
            std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin_;
            const double left = sniff_options_.seconds - passed.count();
            if (left <= 0)
                return Event::end;
            timeout = static_cast<int>(std::min(left, 3600.0) * 1000) + 1;
        }
        struct pollfd fds[] = {{socket.descriptor(), POLLIN, 0}, {stop_event, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        if (poll(fds, std::size(fds), timeout) <= 0)
            continue;
        if (fds[2].revents & (POLLERR | POLLHUP))
            return Event::closed;
        return fds[1].revents ? Event::end : Event::datagram;
    }
}

static std::string exact_iso_time(const struct timespec &at)
{
    std::string text = iso_time(at.tv_sec);
    text.insert(text.size() - 1, fmt::format(".{:06}", at.tv_nsec / 1000));
    return text;
}

static std::string clock_time(const struct timespec &at)
{
    struct tm parts;
    localtime_r(&at.tv_sec, &parts);
    return fmt::format("{:%H:%M:%S}.{:03}", parts, at.tv_nsec / 1000000);
}

void Sniffer::print_document(const Datagram &datagram, const std::string &from, const Message &message)
{
    Json document = {{"at", exact_iso_time(datagram.at)}, {"from", from}};
    document.update(message_json(message));
    print_json_line(document);
}

void Sniffer::print_line(const Datagram &datagram, const std::string &from, const Message &message)
{
    std::string text =
        fmt::format("{}{}{}  {:<21} {}{:<17}{} {:>5}  {}", style_.dim, clock_time(datagram.at), style_.reset, from,
                    style_.bold, message.kind, style_.reset, message.bytes, message_summary(message));
    for (const std::string &fault : message.malformed)
        text += fmt::format("  {}{}{}", style_.red, printable(fault), style_.reset);
    for (const std::string &note : message.notes)
        text += fmt::format("  {}{}{}", style_.yellow, printable(note), style_.reset);
    text += "\n";
    if (sniff_options_.verbose)
        text += message_details(message_json(message));
    print(text);
}

void Sniffer::take(const Datagram &datagram)
{
    char address[INET_ADDRSTRLEN];
    const uint32_t number = htonl(datagram.address);
    inet_ntop(AF_INET, &number, address, sizeof(address));
    const std::string from = fmt::format("{}:{}", address, datagram.port);
    const Message message = decode(datagram.payload);
    tally_.add(address, datagram.port, message);
    taken_++;
    if (options_.json)
        print_document(datagram, from, message);
    else
        print_line(datagram, from, message);
}

void Sniffer::say_drops(uint64_t dropped)
{
    if (dropped > dropped_)
        fmt::print(stderr, "mwctl: {} datagrams came faster than they could be shown, and are lost here\n",
                   dropped - dropped_);
    dropped_ = dropped;
}

void Sniffer::summarise() const
{
    const std::vector<Trouble> troubles = tally_.troubles();
    if (options_.json) {
        Json rows = json_list(tally_.rows(), [](const auto &row) {
            return Json{{"from", row.first.first},
                        {"kind", row.first.second},
                        {"count", row.second.count},
                        {"bytes", row.second.bytes},
                        {"malformed", row.second.malformed}};
        });
        print_json_line({{"summary", rows}, {"dropped", dropped_}, {"troubles", json_list(troubles, trouble_json)}});
        return;
    }
    if (tally_.rows().empty()) {
        print("nothing was heard\n");
        return;
    }
    Table table({"FROM", "KIND", "COUNT", "BYTES", "MALFORMED"});
    for (const auto &[key, row] : tally_.rows())
        table.add({key.first, key.second, std::to_string(row.count), std::to_string(row.bytes),
                   row.malformed ? std::to_string(row.malformed) : "-"});
    print("\n" + table.render(style_));
    if (!troubles.empty())
        print("\n" + troubles_text(troubles, style_));
}

int Sniffer::run()
{
    const Settings settings = options_.settings();
    SniffSocket socket(settings, sniff_options_.interface);
    drop_privileges();
    stop_on_signals();
    fmt::print(stderr, "mwctl: hearing UDP port {} of {}{}{}; SIGINT ends\n", settings.bind_port,
               sniff_options_.interface ? *sniff_options_.interface : "every interface",
               settings.unicast_mode ? "" : ", groups ",
               settings.unicast_mode ? "" : fmt::format("{}", fmt::join(settings.groups, " ")));
    while (sniff_options_.count == 0 || taken_ < sniff_options_.count) {
        const Event event = wait(socket);
        if (event == Event::closed)
            return STATUS_DONE;
        if (event == Event::end)
            break;
        if (std::optional<Datagram> datagram = socket.receive())
            take(*datagram);
        say_drops(socket.dropped());
    }
    summarise();
    return STATUS_DONE;
}

void add_sniff(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("sniff", "Every datagram of the cluster that arrives here, decoded");
    auto sniff_options = std::make_shared<SniffOptions>();
    command->add_option("-i", sniff_options->interface, "Hear this interface alone")->type_name("INTERFACE");
    command->add_flag("-v", sniff_options->verbose, "Show every field");
    command->add_option("--count", sniff_options->count, "End after so many datagrams")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    command->add_option("--seconds", sniff_options->seconds, "End after so long")
        ->check(CLI::NonNegativeNumber)
        ->type_name("S");
    command->footer("Example:\n  mwctl sniff -v --seconds 90");
    command->callback([&, sniff_options] { status = Sniffer(options, *sniff_options).run(); });
}

} // namespace mwctl
