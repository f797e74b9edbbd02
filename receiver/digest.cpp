// See digest.h.
#include "digest.h"

#include <new>

#include <fmt/format.h>

namespace receiver {

// None of these calls fails for this digest, except for want of memory.
sha256::sha256() : context_(::EVP_MD_CTX_new())
{
    if (context_ == nullptr ||
        ::EVP_DigestInit_ex(context_.get(), ::EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
}

void sha256::add(bytes_view bytes)
{
    (void)::EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string sha256::hex()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    (void)::EVP_DigestFinal_ex(context_.get(), digest, &length);
    std::string text;
    for (unsigned i = 0; i < length; ++i)
        text += fmt::format("{:02x}", digest[i]);
    return text;
}

} // namespace receiver
