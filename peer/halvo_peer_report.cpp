#include "halvo_peer_report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

static constexpr mode_t FILE_MODE = 0644;
static constexpr double NS_PER_S = 1e9;
static constexpr double NS_PER_MS = 1e6;

const char* halvo_peer_word(halvo_peer_state_en state)
{
    static constexpr std::array<const char*, 3> words = {"undecided", "up", "lost"};
    return words.at(state);
}

void halvo_peer_say(const char* priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    fprintf(stderr, "%shalvo-peer: ", priority);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

// Returns a formatted text. The bound is well above the longest text here.
[[gnu::format(printf, 1, 2)]] static std::string text_of(const char* format, ...)
{
    std::array<char, 2048> text{};
    va_list args;
    va_start(args, format);
    vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    return text.data();
}

// The figures in words, for a line in the log, the plugin's line and systemd.
static std::string figures_text(const halvo_peer_count_st& count, int64_t now)
{
    const halvo_peer_figures_st figures = halvo_peer_figures(count, now);
    return text_of(
        "%" PRIu64 " received, %" PRIu64 " missing in %" PRIu64
        " gaps, longest gap %.0f ms, jitter p50 %.2f ms, p99 %.2f ms, max %.2f ms; %" PRIu64 " foreign",
        count.received, figures.missing, figures.gaps, static_cast<double>(figures.longest) / NS_PER_MS,
        static_cast<double>(figures.jitter_p50) / NS_PER_MS,
        static_cast<double>(figures.jitter_p99) / NS_PER_MS,
        static_cast<double>(count.jitter_max) / NS_PER_MS, count.foreign);
}

void halvo_peer_say_status(const halvo_peer_count_st& count, int64_t now)
{
    sd_notifyf(0, "STATUS=%s: %s", halvo_peer_word(count.state), figures_text(count, now).c_str());
}

void halvo_peer_say_change(const halvo_peer_count_st& count, int64_t now)
{
    const std::string figures = figures_text(count, now);
    if (count.state == PEER_UP) {
        halvo_peer_say(SD_NOTICE, "up: %" PRIu64 " heartbeats in a row; %s", count.in_a_row, figures.c_str());
    } else {
        halvo_peer_say(SD_ALERT, "lost: silent for %.0f ms (lost is not dead); %s",
                       static_cast<double>(now - count.last) / NS_PER_MS, figures.c_str());
    }
    halvo_peer_say_status(count, now);
}

int halvo_peer_print_line(const halvo_peer_count_st& count, int64_t now)
{
    static constexpr std::array<const char*, 3> verdicts = {"OK", "WARNING", "CRITICAL"};
    const halvo_peer_figures_st figures = halvo_peer_figures(count, now);
    const bool lost = count.state == PEER_LOST || count.received == 0;
    const int status = lost ? 2 : figures.gaps > 0 ? 1 : 0;
    printf("HEARTBEAT %s - %s|received=%" PRIu64 "c missing=%" PRIu64 "c gap_max=%.3fs jitter_p99=%.5fs\n",
           verdicts.at(static_cast<size_t>(status)), figures_text(count, now).c_str(), count.received,
           figures.missing, static_cast<double>(figures.longest) / NS_PER_S,
           static_cast<double>(figures.jitter_p99) / NS_PER_S);
    fflush(stdout);  // otherwise a pipe would get the line of a SIGUSR1 only at the end
    return status;
}

static std::string metrics(const halvo_peer_count_st& count, int64_t now)
{
    const halvo_peer_figures_st figures = halvo_peer_figures(count, now);
    std::string text;
    // Neither 1 nor 0 would be true before the first change, so there is no sample.
    if (count.state != PEER_UNDECIDED) {
        text += text_of(
            "# HELP halvo_peer_up Whether the other VM's heartbeat is heard.\n"
            "# TYPE halvo_peer_up gauge\nhalvo_peer_up %d\n",
            count.state == PEER_UP ? 1 : 0);
    }
    text += text_of(
        "# HELP halvo_peer_received_total Heartbeats received.\n"
        "# TYPE halvo_peer_received_total counter\nhalvo_peer_received_total %" PRIu64
        "\n"
        "# HELP halvo_peer_gaps_total Silences over 100 ms.\n"
        "# TYPE halvo_peer_gaps_total counter\nhalvo_peer_gaps_total %" PRIu64
        "\n"
        "# HELP halvo_peer_gap_max_seconds The longest silence since the start.\n"
        "# TYPE halvo_peer_gap_max_seconds gauge\nhalvo_peer_gap_max_seconds %.6f\n"
        "# HELP halvo_peer_foreign_total Datagrams that are not heartbeats of the other VM.\n"
        "# TYPE halvo_peer_foreign_total counter\nhalvo_peer_foreign_total %" PRIu64 "\n",
        count.received, figures.gaps, static_cast<double>(figures.longest) / NS_PER_S, count.foreign);
    text += text_of(
        "# HELP halvo_peer_jitter_seconds Deviation from 50 ms of the intervals that are not gaps.\n"
        "# TYPE halvo_peer_jitter_seconds summary\n"
        "halvo_peer_jitter_seconds{quantile=\"0.5\"} %.5f\n"
        "halvo_peer_jitter_seconds{quantile=\"0.99\"} %.5f\n"
        "halvo_peer_jitter_seconds{quantile=\"1\"} %.6f\n"
        "halvo_peer_jitter_seconds_sum %.6f\nhalvo_peer_jitter_seconds_count %" PRIu64 "\n",
        static_cast<double>(figures.jitter_p50) / NS_PER_S,
        static_cast<double>(figures.jitter_p99) / NS_PER_S, static_cast<double>(count.jitter_max) / NS_PER_S,
        static_cast<double>(count.jitter_sum) / NS_PER_S, count.intervals);
    return text;
}

// Returns 0, or -1 with errno. The new file always has the same name, so that a crash leaves at most one
// file over. A link of that name is not followed and a FIFO not waited for, because the directory may belong
// to another user.
static int replace_file(const std::string& path, const std::string& text)
{
    const std::string fresh = path + ".new";
    const int fd =
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, FILE_MODE);
    if (fd == -1) {
        return -1;
    }
    errno = ENOSPC;                                     // for a write that takes only a part
    const bool written = fchmod(fd, FILE_MODE) == 0 &&  // whatever the umask
                         write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int failure = errno;
    close(fd);
    errno = failure;
    return written ? rename(fresh.c_str(), path.c_str()) : -1;
}

void halvo_peer_write_file(const std::string& path, const halvo_peer_count_st& count, int64_t now,
                           bool* failing)
{
    const bool failed = replace_file(path, metrics(count, now)) == -1;
    const int failure = errno;
    if (failed && !*failing) {
        halvo_peer_say(SD_ERR, "%s cannot be written: %s", path.c_str(), strerror(failure));
    }
    *failing = failed;
}
