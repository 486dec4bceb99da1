#pragma once

#include <platform/testing/ScriptedHttpFactory.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace testing_support {

using platform_testing::HttpRequest;
using ScriptedHttp = platform_testing::ScriptedHttpFactory;

}  // namespace testing_support
