// qv_exception.cpp - the kit's failure policy.
//
// The kit defines no exception type and throws none of its own: failures are
// reported by status codes and by log lines at level 16 through the core's
// logger. The few flat functions that run work able to throw a standard
// exception (gesture, body and rectangle rotation) catch it and return -1.
// This unit only makes sure the standard streams are set up before any of the
// kit's static objects, as every translation unit including <iostream> does.
#include <iostream>
