#pragma once

/// Sets the same style and Chinese font on every desktop. After the application object has been created.
void setUpLook();

/// Creates the application object, its delegate and the main window, and runs the event loop. When the loop
/// ends, ends the process with the loop's result.
int NSApplicationMain(int& argc, char** argv);
