#pragma once

#include <cstddef>

/// Counts what is allocated on the heap while it lives. One at a time. Builds without
/// AddressSanitizer have nothing to count with: there every figure is 0.
class allocation_meter {
  public:
    allocation_meter();
    ~allocation_meter();
    allocation_meter(const allocation_meter &) = delete;
    allocation_meter &operator=(const allocation_meter &) = delete;

    /// The most that was allocated at one time, in bytes.
    [[nodiscard]] std::size_t peak() const;
    /// What is allocated now; negative when more was freed than allocated.
    [[nodiscard]] long left() const;
};
