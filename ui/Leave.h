#pragma once

/// How the program ends. The last words are said once, whichever way out comes first; a second way out waits
/// until they are said. Any thread.

/// Has the statistics submitted and cleans up the transfer library.
void sayLastWords();

/// The one way out: says the last words and ends the process with status 0, whatever still runs.
[[noreturn]] void leave();
