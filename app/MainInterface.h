#pragma once

/// The main interface: makes the application object, its delegate and the main window with its controller and
/// content, and runs the event loop. Ends the process when the loop ends, with the loop's result.
int NSApplicationMain(int& argc, char** argv);
