// The program as it is, with an observer in front of its window. Log and statistics go to the trace, each
// call at its exact place among what is seen and what the tools tell.

#include "app/MainInterface.h"
#include "pipeline/Observer.h"
#include "pipeline/Trace.h"
#include "platform/Log.h"
#include "report/WebStatic.h"
#include "ui/TextField.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

std::vector<std::string> actions;
std::atomic<bool> tracing{false};
Observer* observer = nullptr;

void observe() {
    static Observer theObserver(std::move(actions));
    observer = &theObserver;
}

} // namespace

// No signal tells that a label's text was changed, so the linker leads the calls through here.
void setStringValue(TextField* label, std::string_view text) __asm__("__real_" SET_STRING_VALUE);
void setAndTell(TextField* label, std::string_view text) __asm__("__wrap_" SET_STRING_VALUE);

void setAndTell(TextField* label, std::string_view text) {
    setStringValue(label, text);
    if (observer != nullptr) {
        observer->textWasSet(*label);
    }
}

void trace::start() {
    tracing = true;
}

void trace::add(std::string line) {
    if (!tracing) {
        return;
    }
    for (std::size_t at = line.find('\n'); at != std::string::npos; at = line.find('\n', at)) {
        line.replace(at, 1, "\\n");
    }
    line += '\n';
    const int file = open(kFile, O_WRONLY | O_APPEND | O_CLOEXEC);
    [[maybe_unused]] const ssize_t put = write(file, line.data(), line.size());
    close(file);
}

void NSLog(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    const std::string line = text;
    free(text);
    // The download worker says this when the install worker is off already.
    if (!line.starts_with("SyncDownload Return Code")) {
        trace::add("log " + line);
    }
}

void executeWebStatic(const char* code) {
    if (code == std::string("815")) {
        trace::start();
    }
    trace::add(std::string("event ") + code);
}

void submitWebStatic() {
    trace::add("events submitted");
}

int main(int argc, char** argv) {
    actions.assign(argv + 1, argv + argc);
    int noArguments = 1;
    qAddPreRoutine(observe);
    return NSApplicationMain(noArguments, argv);
}
