// Defects that clang-tidy must go on finding, whatever is done to make it quick. scripts/lint.sh looks
// (tests/lint/check_planted.py): each comment "finds" names the checks that must complain of its line.
// Never compiled into anything.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "handles/cjson.h"

bool flag();
void take(std::string text);
void use(const char *text);

namespace {

// What is gone: moved away, freed, or never there.

std::size_t moved_away(std::string text)
{
    take(std::move(text));
    return text.size(); // finds bugprone-use-after-move
}

std::size_t member_moved_away(std::pair<std::string, int> both)
{
    take(std::string{std::move(both.first)});
    return both.first.size(); // finds clang-analyzer-cplusplus.Move
}

int moved_handle(json_ptr tree)
{
    const json_ptr other = std::move(tree);
    return other != nullptr ? tree->type : 0; // finds bugprone-use-after-move
}

int null_after_a_look(const cJSON *tree)
{
    if (tree == nullptr) {
        use("no tree");
    }
    return tree->type; // finds clang-analyzer-core.NullDereference
}

int null_in_a_handle(const json_ptr &tree)
{
    const cJSON *raw = tree.get();
    if (raw == nullptr && flag()) {
        return raw->type; // finds clang-analyzer-core.NullDereference
    }
    return 0;
}

int null_when_nothing_was_found(const std::vector<int> &numbers)
{
    const int *found = nullptr;
    for (const int &number : numbers) {
        if (number == 3) {
            found = &number;
        }
    }
    return *found; // finds clang-analyzer-core.NullDereference
}

char freed()
{
    auto *bytes = static_cast<char *>(std::malloc(8));
    if (bytes == nullptr) {
        return 0;
    }
    std::free(bytes);
    return bytes[0]; // finds clang-analyzer-unix.Malloc
}

void freed_twice()
{
    auto *bytes = static_cast<char *>(std::malloc(8));
    std::free(bytes);
    std::free(bytes); // finds clang-analyzer-unix.Malloc
}

/// Long enough that the analyzer must follow a call that is no one-liner.
void free_perhaps(char *bytes, int kind)
{
    if (bytes == nullptr) {
        return;
    }
    if (kind == 1) {
        use("one");
    }
    if (kind == 2) {
        use("two");
    }
    if (flag()) {
        std::free(bytes);
    }
}

char freed_by_a_helper(int kind)
{
    auto *bytes = static_cast<char *>(std::malloc(8));
    if (bytes == nullptr) {
        return 0;
    }
    bytes[0] = 'a';
    free_perhaps(bytes, kind);
    const char first = bytes[0]; // finds clang-analyzer-unix.Malloc
    std::free(bytes);
    return first;
}

char text_of_a_dead_string()
{
    const char *text = nullptr;
    {
        const std::string name = "abc";
        text = name.c_str();
    }
    return text[0]; // finds clang-analyzer-cplusplus.InnerPointer
}

char text_of_a_string_that_grew(std::string name)
{
    const char *text = name.c_str();
    name.append("and more than there was room for");
    return text[0]; // finds clang-analyzer-cplusplus.InnerPointer
}

int *address_of_a_local()
{
    int value = 3;
    int *address = &value;
    return address; // finds clang-analyzer-core.StackAddressEscape
}

// What nobody frees.

void leak_of_a_handle(json_ptr tree)
{
    tree.release(); // finds bugprone-unused-return-value
}

void leak_on_one_way()
{
    auto *bytes = static_cast<char *>(std::malloc(8));
    if (bytes != nullptr && flag()) {
        return; // finds clang-analyzer-unix.Malloc
    }
    std::free(bytes);
}

int leak_in_a_loop(const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        char *copy = strdup(name.c_str());
        if (copy != nullptr && name.empty()) {
            return 1; // finds clang-analyzer-unix.Malloc
        }
        std::free(copy);
    }
    return 0;
}

void leak_of_new()
{
    int *number = new int{3};
    *number = 4;
} // finds clang-analyzer-cplusplus.NewDeleteLeaks

// Numbers.

int narrowed(long long big)
{
    int small = 0;
    small = big; // finds bugprone-narrowing-conversions
    return small;
}

int never_set(bool known)
{
    int value; // finds cppcoreguidelines-init-variables
    if (known) {
        value = 3;
    }
    return value; // finds clang-analyzer-core.uninitialized.UndefReturn
}

int divided_by_zero(int number)
{
    int divisor = 0;
    if (number == 3) {
        divisor = 1;
    }
    return number / divisor; // finds clang-analyzer-core.DivideZero
}

double rounded_too_early(int one, int two)
{
    return one / two; // finds bugprone-integer-division
}

int sign_of_a_byte(char byte)
{
    const int value = byte; // finds bugprone-signed-char-misuse
    return value;
}

std::size_t widened_too_late(int one, int two)
{
    return static_cast<std::size_t>(one * two); // finds bugprone-misplaced-widening-cast
}

int shifted_too_far(bool far)
{
    return 1 << (far ? 40 : 35); // finds clang-analyzer-core.UndefinedBinaryOperatorResult
}

int unchecked_number(const char *text)
{
    return std::atoi(text); // finds cert-err34-c
}

// What does not mean what it seems to.

struct plain {
    virtual ~plain() = default;
    int first = 1;
};
struct extended : plain {
    int second = 2;
};

plain cut_off(const extended &whole)
{
    return whole; // finds cppcoreguidelines-slicing
}

bool same_twice(int number)
{
    return number == 3 && number == 3; // finds misc-redundant-expression
}

bool equal_texts(const char *one)
{
    return std::strcmp(one, "abc") == 1; // finds bugprone-suspicious-string-compare
}

void for_ever(int count)
{
    const int reached = 0;
    while (reached < count) { // finds bugprone-infinite-loop
        use("again");
    }
}

std::size_t null_text()
{
    return std::string_view{nullptr}.size(); // finds bugprone-stringview-nullptr
}

std::string number_as_text()
{
    std::string text;
    text = 3; // finds bugprone-string-integer-assignment
    return text;
}

void copied_in_a_loop(const std::vector<std::string> &list)
{
    for (const std::string one : list) { // finds performance-for-range-copy
        use(one.c_str());
    }
}

int read_and_forgotten()
{
    int value = 3;
    value = static_cast<int>(flag()); // finds clang-analyzer-deadcode.DeadStores
    return 3;
}

} // namespace

/// Calls them all, so that none is left out as unused.
std::size_t planted(const std::vector<std::string> &names, const std::vector<int> &numbers)
{
    std::size_t sum = moved_away(names[0]) + member_moved_away({names[0], 1}) + null_text();
    sum += static_cast<std::size_t>(moved_handle(nullptr) + null_after_a_look(nullptr));
    sum +=
        static_cast<std::size_t>(null_in_a_handle(nullptr) + null_when_nothing_was_found(numbers));
    sum +=
        static_cast<std::size_t>(freed() + freed_by_a_helper(numbers[0]) + text_of_a_dead_string());
    sum += static_cast<std::size_t>(text_of_a_string_that_grew(names[0]) + *address_of_a_local());
    sum +=
        static_cast<std::size_t>(leak_in_a_loop(names) + narrowed(numbers[0]) + never_set(flag()));
    sum += static_cast<std::size_t>(divided_by_zero(numbers[0]) + sign_of_a_byte(names[0][0]));
    sum += static_cast<std::size_t>(rounded_too_early(numbers[0], numbers[1]));
    sum += widened_too_late(numbers[0], numbers[1]) + number_as_text().size();
    sum += static_cast<std::size_t>(shifted_too_far(flag()) + unchecked_number(names[0].c_str()));
    sum += static_cast<std::size_t>(cut_off({}).first + read_and_forgotten());
    sum += static_cast<std::size_t>(same_twice(numbers[0])) +
           static_cast<std::size_t>(equal_texts(""));
    freed_twice();
    leak_of_a_handle(nullptr);
    leak_on_one_way();
    leak_of_new();
    for_ever(numbers[0]);
    copied_in_a_loop(names);
    return sum;
}
