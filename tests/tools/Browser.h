#pragma once

#include "tools/ReportPage.h"

#include <string>

namespace testing_support {

/// How a page is looked at.
struct PageView {
    std::string fragment = {};  ///< with its "#"
    int height = 900;           ///< of the window, in pixels; only rows in view are in the document
    /// Whether the browser's clock leaps over what nothing happens in. With the real clock the script cannot wait.
    bool clockLeaps = true;
};

/// Opens the page in a browser without a window and runs a script beside it, which uses the page as a person does.
///
/// The page is unchanged and lies in a frame, so its own policy holds in it. The script is the body of an async
/// function; beside the page's `window` it has find(selector), all(selector), type(element, text), press(key),
/// choose(roles, operation), rows(), steps() and wait().
///
/// @return what the script returned, as JSON; a text as it is.
/// @throws std::runtime_error where the browser or the script failed.
std::string runBesidePage(const Tesmor::Arkwell::Tools::ReportPage& page, const std::string& script,
                          const PageView& view = {});

}  // namespace testing_support
