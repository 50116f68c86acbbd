// Standard streams that whoever started the program has closed.

#ifndef POSTWELL_PROGRAMS_STANDARD_STREAMS_H_
#define POSTWELL_PROGRAMS_STANDARD_STREAMS_H_

// To be called first. The next file that is opened would take the number of a closed
// stream, and what is said there would go into a database; this fails to be written.
void keepStandardStreams();

#endif  // POSTWELL_PROGRAMS_STANDARD_STREAMS_H_
