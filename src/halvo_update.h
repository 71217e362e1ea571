// The live update: takes over from a changed configuration file what may change while processes run.
//
// It compares entry by entry and applies step by step; nothing is undone when it stops at a mismatch, so
// that an operator finds in force what the acknowledgement's order implies. Control thread only. Files are
// checked outside the table lock; each entry's stores happen under one hold of it.

#pragma once

// Re-reads the configuration and applies it. Every line reported to the operator goes to the log and to
// ack_msg, ACK_MSG_SIZE bytes, or twice to the log when ack_msg is null. Returns 0 when the whole new
// configuration was taken over, -1 when the update stopped.
int halvo_update_config(char* ack_msg);
