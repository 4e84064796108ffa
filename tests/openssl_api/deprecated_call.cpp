#include <openssl/ec.h>
#include <openssl/obj_mac.h>

void *openssl_api_deprecated_call()
{
    return EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
}
