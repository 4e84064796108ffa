#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>

/// Junk tokens are held against the address that sends them. Google counts every question of ours,
/// also one about a token that it refuses to decode, and above its quota answers nobody. One host
/// must not use the quota up for all the others.
///
/// An address that has sent 10 junk tokens within 60 s is not asked about until those are over. Once
/// all addresses together have sent 60 within an hour, the same holds for each of them that sent any,
/// until the hour is over. For the minute a question counts as junk from its asking until Google has
/// answered, so that many at once gain nothing; for the hour only what Google has refused. At most 1024
/// questions are remembered, the oldest is forgotten.

/// While one lives, Google is asked for the sake of this address: the calls between the check of a
/// request and the question carry none. A question of nobody's is not counted.
class velm_google_asker {
  public:
    explicit velm_google_asker(std::optional<in_addr> address) noexcept;
    ~velm_google_asker();
    velm_google_asker(const velm_google_asker &) = delete;
    velm_google_asker &operator=(const velm_google_asker &) = delete;

    [[nodiscard]] static std::optional<in_addr> current() noexcept;

  private:
    std::optional<in_addr> outer_;
};

/// The number of a question that may be asked; nothing when this address is not asked about now.
[[nodiscard]] std::optional<std::uint32_t> velm_google_junk_admit(std::optional<in_addr> asker);

/// The end of each question that was admitted: with `junk` it goes on counting, else it never was.
void velm_google_junk_settle(std::uint32_t question, bool junk);
