#include "status_text.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <array>
#include <cstdio>

// Splits like halvo_split_command(), which is not used because it yields an array of words and ignores all
// but the first 1023 characters.
std::string status_join_words(std::string_view command)
{
    std::string words;
    command = command.substr(0, command.find('#'));
    while (!command.empty()) {
        const size_t end = std::min(command.find_first_of(" \t"), command.size());
        if (end > 0) {
            words.append(words.empty() ? "" : " ").append(command.substr(0, end));
        }
        command.remove_prefix(std::min(end + 1, command.size()));
    }
    return words;
}

// Goes character by character, so that one bad byte costs one replacement and not the rest of the name.
std::string status_to_utf8(std::string_view text)
{
    std::string valid;
    while (!text.empty()) {
        rapidjson::MemoryStream stream(text.data(), text.size());
        rapidjson::StringBuffer character;
        const bool is_valid = rapidjson::UTF8<>::Validate(stream, character);
        valid.append(is_valid ? text.substr(0, stream.Tell()) : "\xef\xbf\xbd");
        text.remove_prefix(is_valid ? stream.Tell() : 1);
    }
    return valid;
}

std::string status_to_plain(std::string_view text)
{
    std::string plain = status_to_utf8(text);
    // C2 is the first byte of U+0080 to U+009F, control characters that some terminals obey like an escape.
    bool after_c2 = false;
    for (char& character : plain) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f) {
            character = '?';
        } else if (after_c2 && byte < 0xa0) {
            character = '\xbf';  // with its C2, an inverted question mark
        }
        after_c2 = byte == 0xc2;
    }
    return plain;
}

std::string status_show_percent(int64_t tenths)
{
    std::string text = std::to_string(tenths / 10);
    return tenths % 10 == 0 ? text + "%" : text + "." + std::to_string(tenths % 10) + "%";
}

std::string status_show_kilobytes(int64_t kilobytes)
{
    static constexpr std::array UNITS = {"kB", "MB", "GB", "TB"};
    size_t unit = 0;
    auto value = static_cast<double>(kilobytes);
    // From 1000 on, and not from 1024, so that a number has at most three digits, save for rounding.
    for (; value >= 1000 && unit + 1 < UNITS.size(); ++unit) {
        value /= 1024;
    }
    std::array<char, 32> text;
    snprintf(text.data(), text.size(), value < 10 && unit > 0 ? "%.1f %s" : "%.0f %s", value, UNITS.at(unit));
    return text.data();
}

std::string status_show_ratio(int64_t tenths)
{
    std::array<char, 32> text;
    snprintf(text.data(), text.size(), "%.3f", static_cast<double>(tenths) / 1000);
    return text.data();
}
