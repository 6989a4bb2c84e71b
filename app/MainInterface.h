#pragma once

/// One look on every desktop: style, and a font for Chinese. After the application object is made.
void setUpLook();

/// The main interface: makes the application object, its delegate and the main window with its controller and
/// content, and runs the event loop. Ends the process when the loop ends, with the loop's result.
int NSApplicationMain(int& argc, char** argv);
