#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// A directory of the test's own, removed with all it holds.
class temporary_directory {
  public:
    temporary_directory();
    ~temporary_directory();
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;

    /// Its own path, without a slash at the end.
    [[nodiscard]] std::string path() const;
    /// The path of a name inside.
    [[nodiscard]] std::string path(std::string_view name) const;
    /// Writes a file inside; its path.
    std::string write(std::string_view name, std::string_view content) const;
    /// The content of a file inside, empty when there is none.
    [[nodiscard]] std::string read(std::string_view name) const;

  private:
    std::filesystem::path root_;
};
