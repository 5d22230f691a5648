// The last line in the log of a process that ends by an exception.
#pragma once

// From now on an exception that nobody takes is named in one line at severity 3
// before the process aborts. Called once, at the start of the program.
void log_terminating_exception();
