#include "tools/locations/velmctl_print.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "text/utc.h"
#include "tools/terminal/text.h"

namespace {

[[gnu::format(printf, 1, 2)]] std::string format(const char *pattern, ...)
{
    std::array<char, 1024> line{}; // two numbers of 310 digits fit
    va_list arguments;
    va_start(arguments, pattern);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is two lines above
    std::vsnprintf(line.data(), line.size(), pattern, arguments);
    va_end(arguments);
    return line.data();
}

/// The fewest significant digits that tell the number from every other.
int digits_of(double number)
{
    int digits = 1;
    while (digits < std::numeric_limits<double>::max_digits10 &&
           std::strtod(format("%.*e", digits - 1, number).c_str(), nullptr) != number) {
        ++digits;
    }
    return digits;
}

/// As short as it can be without losing a bit. Not every C++ library that we build with has
/// std::to_chars for it.
std::string json_number(double number)
{
    if (!std::isfinite(number)) {
        return "null";
    }
    const int digits = digits_of(number);
    std::string scientific = format("%.*e", digits - 1, number);
    const long exponent = std::strtol(scientific.c_str() + scientific.find('e') + 1, nullptr, 10);
    std::string plain =
        format("%.*f", std::max(0, digits - 1 - static_cast<int>(exponent)), number);
    return plain.size() <= scientific.size() ? plain : scientific;
}

std::string json_string(std::string_view text)
{
    return '"' + velmctl_text_for_json(text) + '"';
}

std::string ip_to_text(const velm_location_report &report)
{
    const std::uint8_t *const ip = report.phone_ip;
    return format("%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]);
}

std::string bssid_to_text(const velm_location_report &report)
{
    const std::uint8_t *const mac = report.bssid;
    return format("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string json_header(const char *kind, const velm_frame_header &header)
{
    return format("{\"kind\":\"%s\",\"type\":%u,\"id\":%u,\"sent\":%u,\"sent_iso\":\"%s\","
                  "\"status\":%u",
                  kind, header.type, header.id, header.time,
                  velmctl_time_to_text(header.time).c_str(), header.status);
}

const char *status_to_text(std::uint32_t status)
{
    switch (status) {
    case VELM_STATUS_OK:
        return "ok";
    case VELM_STATUS_BUSY:
        return "busy";
    case VELM_STATUS_NO_PAIRED_DEVICES:
        return "no paired devices";
    default:
        return "unknown";
    }
}

} // namespace

std::string velmctl_time_to_text(std::uint32_t time)
{
    const std::tm parts = utc_parts_of(time).value_or(std::tm{});
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

std::string_view velmctl_field(std::span<const char> field)
{
    const auto end = std::find(field.begin(), field.end(), '\0');
    return {field.data(), static_cast<std::size_t>(end - field.begin())};
}

std::string velmctl_report_to_text(const velm_frame_header &header,
                                   const velm_location_report &report)
{
    std::string out = format("report: %u%s\n", header.id, report.valid == 1 ? "" : " (not valid)");
    out += "time: " + velmctl_time_to_text(report.time) + '\n';
    out += format("position: %.7f, %.7f\n", report.latitude, report.longitude);
    out +=
        format("horizontal uncertainty: %g m, %g m, orientation %g\n",
               report.horizontal_uncertainty1, report.horizontal_uncertainty2, report.orientation);
    out += format("height: %g m, kind %u\n", report.height, report.height_kind);
    out += format("vertical uncertainty: %g m\n", report.vertical_uncertainty);
    out += format("rssi: %d dBm\n", report.rssi);
    out += "bssid: " + (report.bssid_present != 0 ? bssid_to_text(report) : "none") + '\n';
    out += "phone model: " + velmctl_text_for_terminal(velmctl_field(report.phone_model)) + '\n';
    out += "phone os: " + velmctl_text_for_terminal(velmctl_field(report.os_version)) + '\n';
    out += "phone ip: " + ip_to_text(report) + '\n';
    return out + '\n';
}

std::string velmctl_report_to_json(const velm_frame_header &header,
                                   const velm_location_report &report)
{
    std::string out = json_header("report", header);
    out += format(",\"valid\":%u", report.valid);
    out += ",\"phone_ip\":" + json_string(ip_to_text(report));
    out += ",\"os_version\":" + json_string(velmctl_field(report.os_version));
    out += ",\"phone_model\":" + json_string(velmctl_field(report.phone_model));
    out += format(",\"time\":%u", report.time);
    out += ",\"time_iso\":" + json_string(velmctl_time_to_text(report.time));
    out += format(",\"bssid_present\":%u", report.bssid_present);
    out += ",\"bssid\":" + json_string(bssid_to_text(report));
    out += format(",\"rssi\":%d", report.rssi);
    out += ",\"latitude\":" + json_number(report.latitude);
    out += ",\"longitude\":" + json_number(report.longitude);
    out += ",\"horizontal_uncertainty1\":" + json_number(report.horizontal_uncertainty1);
    out += ",\"horizontal_uncertainty2\":" + json_number(report.horizontal_uncertainty2);
    out += ",\"orientation\":" + json_number(report.orientation);
    out += ",\"height\":" + json_number(report.height);
    out += format(",\"height_kind\":%u", report.height_kind);
    out += ",\"vertical_uncertainty\":" + json_number(report.vertical_uncertainty);
    return out + "}\n";
}

std::string velmctl_answer_to_json(const velm_frame_header &header)
{
    return json_header("answer", header) +
           format(",\"status_text\":\"%s\"}\n", status_to_text(header.status));
}
