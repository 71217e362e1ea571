// The log of halvo-check: standard error, a line a message, in the form "FILE:LINE: error: TEXT" that editors
// and compilers know.
//
// halvo_check_stand_ins.cpp implements halvo_log.h with it, and the few functions that the daemon's rooms
// would reach a device, a socket or another process with.

#pragma once

inline int halvo_check_line_g;     // what a message that names no line is about; 0: no line
inline bool halvo_check_silent_g;  // nothing is said and counted
inline int halvo_check_status_g;   // the exit status that has come of it: 0 clean, 1 warnings, 2 errors
