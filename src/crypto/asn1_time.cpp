#include "crypto/asn1_time.h"

#include <ctime>

#include "text/utc.h"

std::optional<std::int64_t> asn1_time_seconds(const ASN1_TIME *time)
{
    std::tm parts{};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? std::optional{utc_seconds_of(parts)} : std::nullopt;
}
