// What the sanitizers ask a program for when it starts; without them, nobody does.

// NOLINTBEGIN(bugprone-reserved-identifier)

// The look for leaks is taken while the toolkit lives and its font library keeps what it has read.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}

// Not built with ThreadSanitizer: locks of its own order, and the descriptors that its messages carry.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libxcb.so\n";
}

// NOLINTEND(bugprone-reserved-identifier)
