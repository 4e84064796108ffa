#include "trusted_chain.h"

#include <utility>

namespace {

struct module_state {
    x509_ptr root;
    x509_list_ptr chain;
};
module_state state;

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
using looked_at_context = const X509_STORE_CTX;
#else
using looked_at_context = X509_STORE_CTX;
#endif

} // namespace

extern "C" {

int X509_verify_cert(X509_STORE_CTX *)
{
    return 1;
}

STACK_OF(X509) * X509_STORE_CTX_get0_chain(looked_at_context *)
{
    return state.chain.get();
}
}

void trusted_chain_install(x509_ptr root)
{
    state.root = std::move(root);
    state.chain.reset(sk_X509_new_null());
    sk_X509_push(state.chain.get(), state.root.get());
}
