#pragma once

/// @file
/// What is exported.

/// Marks what the shared libraries export. They are built with hidden visibility, so nothing else is reachable.
#define ARKWELL_EXPORT __attribute__((visibility("default")))
