// Whether the mail log grows.

#ifndef POSTWELL_PROGRAMS_LOG_STATE_H_
#define POSTWELL_PROGRAMS_LOG_STATE_H_

// Names the daemons that have to run for anything new to come in and do not. Whether
// there are any.
bool tellDaemons();

#endif  // POSTWELL_PROGRAMS_LOG_STATE_H_
