#pragma once

#include <openssl/bio.h>

#include <climits>
#include <memory>
#include <string>

namespace platform_detail {

struct BioRelease {
    void operator()(BIO* text) const { BIO_free(text); }
};
using BioPointer = std::unique_ptr<BIO, BioRelease>;

/// A text for OpenSSL to read, which must outlive it; null where memory runs out.
inline BioPointer readable(const std::string& text) {
    return BioPointer(text.size() <= INT_MAX ? BIO_new_mem_buf(text.data(), static_cast<int>(text.size())) : nullptr);
}

}  // namespace platform_detail
