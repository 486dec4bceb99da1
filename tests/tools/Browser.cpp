#include "Browser.h"

#include "testing/ChildProcess.h"
#include "testing/TemporaryDirectory.h"

#include <platform/Text.h>

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace testing_support {

namespace {

constexpr char RESULT_BEGIN[] = "<pre id=\"result\">";
constexpr char RESULT_END[] = "</pre>";

constexpr char DRIVER_BEGIN[] = R"html(<!DOCTYPE html>
<meta charset="utf-8">
<pre id="result"></pre>
<script>
const frame = document.createElement("iframe");
const find = (selector) => frame.contentDocument.querySelector(selector);
const all = (selector) => [...frame.contentDocument.querySelectorAll(selector)];
const wait = () => new Promise((done) => setTimeout(done, 500));
const press = (key) => find("#tree").dispatchEvent(new KeyboardEvent("keydown", { key, bubbles: true }));

function type(element, text) {
    element.value = text;
    element.dispatchEvent(new Event("input", { bubbles: true }));
}

function choose(roles, operation) {
    for (let chip = find("#chosen button"); chip; chip = find("#chosen button")) {
        chip.click();
    }
    for (const role of roles) {
        type(find("#role-filter"), String(role));
        find('#roles input[value="' + role + '"]').click();
    }
    find("#operation").value = operation;
    find("#operation").dispatchEvent(new Event("change", { bubbles: true }));
}

/// The rows in view: the text of each, its answer, its tags.
const rows = () => all(".row").map((row) => ({
    text: row.title, label: row.querySelector(".name").textContent, answer: row.querySelector(".sign").ariaLabel,
    tags: [...row.querySelectorAll(".tag")].map((tag) => tag.textContent), isSelected: row.ariaSelected === "true",
}));
/// The explanation, line by line.
const steps = () => [find("#verdict").lastChild.textContent, ...all("#asked > *, #steps > li").flatMap((part) => {
    return part.tagName === "LI" && part.children.length > 0 ? [...part.children] : [part];
}).map((part) => part.textContent)];

async function script(window) {
)html";

constexpr char DRIVER_END[] = R"html(
}

frame.width = 1400;
frame.addEventListener("load", async () => {
    const result = await script(frame.contentWindow).catch((error) => "failed: " + error.stack);
    const text = typeof result === "string" ? result : JSON.stringify(result);
    document.getElementById("result").textContent = encodeURIComponent(text);
});
)html";

std::string contentOf(const Tesmor::Arkwell::Tools::ReportPage& page) {
    std::ostringstream content;
    page.write(content);
    return content.str();
}

std::string commandLine(const TemporaryDirectory& folder, const PageView& view) {
    std::string command = "HOME=" + folder.path() + " exec chromium --headless --disable-gpu --disable-dev-shm-usage";
    command += " --no-first-run --disable-background-networking --disable-component-update";
    // The browser does not confine its processes where they could be root's.
    command += geteuid() == 0 ? " --no-sandbox" : "";
    command += view.clockLeaps ? " --virtual-time-budget=60000" : "";
    // The script may look into the frame.
    command += " --allow-file-access-from-files --user-data-dir=" + folder / "profile";
    return command + " --dump-dom file://" + folder / "driver.html" + " >" + folder / "dom" + " 2>" + folder / "log";
}

std::string resultIn(const std::string& document) {
    const std::size_t begin = document.find(RESULT_BEGIN) + sizeof RESULT_BEGIN - 1;
    std::string result;
    percentDecodeUriPart(document.substr(begin, document.find(RESULT_END, begin) - begin), result);
    return result;
}

}  // namespace

std::string runBesidePage(const Tesmor::Arkwell::Tools::ReportPage& page, const std::string& script,
                          const PageView& view) {
    const TemporaryDirectory folder;
    writeFile(folder / "page.html", contentOf(page));
    const std::string frame = "frame.height = " + std::to_string(view.height) + ";\nframe.src = \"page.html" +
                              view.fragment + "\";\ndocument.body.append(frame);\n</script>\n";
    writeFile(folder / "driver.html", DRIVER_BEGIN + script + DRIVER_END + frame);
    const std::string command = commandLine(folder, view);
    ChildProcess browser([&command] {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        return EXIT_FAILURE;
    });
    const int status = browser.wait();
    if (status != 0) {
        throw std::runtime_error("the browser ended with " + std::to_string(status) + ": " + readFile(folder / "log"));
    }
    std::string result = resultIn(readFile(folder / "dom"));
    if (result.empty() || result.rfind("failed: ", 0) == 0) {
        throw std::runtime_error("the script beside the page " + result);
    }
    return result;
}

}  // namespace testing_support
