#pragma once

#include "jwt/Trace.h"

#include <string>

namespace Tesmor::Arkwell {

/// JWTUtil::loadJwtPublicKey() for a caller that traces.
int readPublicKeyFile(std::string& publicKey, const Trace& trace);

}  // namespace Tesmor::Arkwell
