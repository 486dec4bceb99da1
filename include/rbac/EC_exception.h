#pragma once

// The library's failures carry the platform's status codes, so the exception is the platform's.
#include <platform/Status.h>
