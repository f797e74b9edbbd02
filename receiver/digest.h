// SHA-256 of a sequence of bytes.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>

#include "source.h"

namespace receiver {

class sha256 {
public:
    sha256();

    void add(bytes_view bytes);

    // Lower-case hex. To be called once.
    std::string hex();

private:
    struct release {
        void operator()(EVP_MD_CTX* context) const { ::EVP_MD_CTX_free(context); }
    };

    std::unique_ptr<EVP_MD_CTX, release> context_;
};

} // namespace receiver
