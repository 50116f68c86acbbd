// postwell log archives: the saved logs and what they hold.

#ifndef POSTWELL_PROGRAMS_LOG_ARCHIVES_H_
#define POSTWELL_PROGRAMS_LOG_ARCHIVES_H_

void listLogArchives(bool json);

#endif  // POSTWELL_PROGRAMS_LOG_ARCHIVES_H_
