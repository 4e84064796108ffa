#pragma once

#include <openssl/ui.h>

#include <memory>

/// Stands in for the terminal on which OpenSSL asks for a passphrase: it tells nothing, and notes
/// that it was turned to. The real one would wait for an answer.
class watched_terminal {
  public:
    watched_terminal()
    {
        opened = false;
        UI_method_set_opener(method_.get(), open);
        UI_set_default_method(method_.get());
    }
    ~watched_terminal()
    {
        UI_set_default_method(usual_);
    }
    watched_terminal(const watched_terminal &) = delete;
    watched_terminal &operator=(const watched_terminal &) = delete;

    static inline bool opened = false;

  private:
    static int open(UI * /*ui*/)
    {
        opened = true;
        return 0;
    }

    const UI_METHOD *usual_ = UI_get_default_method();
    std::unique_ptr<UI_METHOD, decltype(&UI_destroy_method)> method_{UI_create_method("watched"),
                                                                     UI_destroy_method};
};
