#pragma once

#include <platform/Export.h>

#include <cstddef>

/// @file
/// What the installation's settings file says about this host. The file is read when a setting is first needed and
/// again whenever it has changed; docs/settings.md describes it. Both functions are safe from any thread and throw
/// nothing but std::bad_alloc; every failure is logged.

/// Writes the primary server's name, NUL-terminated, into `buffer` of `size` bytes.
///
/// @return 0, or one of platform_status::SETTINGS_UNREADABLE, SETTINGS_DAMAGED, SETTING_MISSING and SETTING_TOO_LONG
/// with `buffer` holding an empty text (where `size` is not 0).
ARKWELL_EXPORT int db_getservernameEx(char* buffer, std::size_t size);

/// Whether access is enforced by the second generation, that is, by this library.
///
/// False only where an intact settings file says "gen1". A missing or damaged file, an absent setting and any other
/// value all mean true: damage never turns enforcement off.
ARKWELL_EXPORT bool secondGenerationEnforcementEnabled();
