#include <cstdlib>
#include <exception>

/// What the C++ runtime needs to throw and to catch, 37 kB of it, replaced by the end of the process. The
/// daemon throws and catches nothing; what the C++ library would throw nobody would catch. Linked into the
/// daemon only, with the static runtime. The names are those of the Itanium C++ ABI and of libstdc++. They are
/// weak: where another object of the runtime brings its own, that one counts.

namespace {

[[noreturn]] void end() noexcept
{
    __gnu_cxx::__verbose_terminate_handler(); // src/logger/fatal.cpp has it
    std::abort();
}

} // namespace

// clang-format off
// The names are not ours to choose.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl58-cpp,clang-diagnostic-reserved-identifier)
extern "C" {
[[gnu::weak]] void __cxa_throw(void *, void *, void (*)(void *)) { end(); }
[[gnu::weak]] void *__cxa_allocate_exception(std::size_t) noexcept { end(); }
[[gnu::weak]] void __cxa_free_exception(void *) noexcept { end(); }
[[gnu::weak]] void *__cxa_begin_catch(void *) noexcept { end(); }
[[gnu::weak]] void __cxa_end_catch() { end(); }
[[gnu::weak]] void __cxa_rethrow() { end(); }
[[gnu::weak]] void __cxa_pure_virtual() { end(); }
[[gnu::weak]] void _Unwind_Resume(void *) { end(); }
[[gnu::weak]] int __gxx_personality_v0(int, int, unsigned long, void *, void *) { end(); }
}

namespace std {
[[gnu::weak]] void terminate() noexcept { end(); }
[[noreturn, gnu::weak]] void __throw_bad_exception() { end(); }
[[noreturn, gnu::weak]] void __throw_bad_alloc() { end(); }
[[noreturn, gnu::weak]] void __throw_bad_array_new_length() { end(); }
[[noreturn, gnu::weak]] void __throw_bad_cast() { end(); }
[[noreturn, gnu::weak]] void __throw_bad_typeid() { end(); }
[[noreturn, gnu::weak]] void __throw_logic_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_domain_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_invalid_argument(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_length_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_out_of_range(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_out_of_range_fmt(const char *, ...) { end(); }
[[noreturn, gnu::weak]] void __throw_runtime_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_range_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_overflow_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_underflow_error(const char *) { end(); }
[[noreturn, gnu::weak]] void __throw_bad_function_call() { end(); }
} // namespace std
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl58-cpp,clang-diagnostic-reserved-identifier)
// clang-format on
