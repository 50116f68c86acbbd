// What one mail user sets for himself: forwarding and a vacation reply.

#ifndef POSTWELL_PERSONAL_H_
#define POSTWELL_PERSONAL_H_

#include <string>

#include "postwell.h"

// Construct for a user, check isValid(), read and change, save(). Kept in the user's home
// directory: ".forward", which the mail system obeys at delivery, and ".vacation.msg",
// the reply's text. No name, address or text is checked, and who may set whose is the
// caller's to decide. Symbolic links are followed: a program of root's takes on the
// user's identity before it constructs one.
class POSTWELL_API Personal {
 public:
  // Reads what the user has set; a missing file leaves its fields off and empty. The user
  // is "DOMAIN\name" while the SMTP settings' account type is "win", "name@domain" while
  // it is "ldap", and a local account's name while it is "local".
  explicit Personal(const std::string &user) noexcept;
  ~Personal();
  Personal(const Personal &) = delete;
  Personal &operator=(const Personal &) = delete;

  // False when the home directory is not known, a file could not be read or memory was
  // short. The object must then not be saved: that would replace files unread.
  bool isValid() const noexcept;
  // Why the object is not valid: "acc_type_unsupport" for a name of another account type
  // than the mail server's, "no_user_home" for a home or file that cannot be read, empty
  // for an empty name and without memory.
  std::string getErrKey() const noexcept;

  // Texts are copies, empty without memory.
  std::string getUser() const noexcept;
  bool isEnabledForward() const noexcept;
  // Forwarded mail also stays in the user's own mailbox.
  bool isKeepCopy() const noexcept;
  std::string getForwardAddr() const noexcept;
  bool isEnabledReply() const noexcept;
  std::string getReplySubject() const noexcept;
  // As read from the file: every line ends with "\r\n", blank ones are lost.
  std::string getReplyMessage() const noexcept;

  // Setters change memory only. Memory running out leaves the field as it was.
  void setForward(bool enabled) noexcept;
  void setKeepCopy(bool enabled) noexcept;
  // One line of the ".forward", obeyed as it stands: an address, but also "|command".
  void setForwardAddr(const std::string &address) noexcept;
  void setReply(bool enabled) noexcept;
  void setReplySubject(const std::string &subject) noexcept;
  void setReplyMessage(const std::string &message) noexcept;

  // Removes the user's files, the record of who was replied to among them, and writes
  // those that the settings ask for: none while forwarding and reply are both off. They
  // belong to the calling process's user, with its default mode. Returns 0, or -1 with
  // the old files gone and the new ones missing or in part.
  int save() noexcept;

 private:
  void load();
  bool findHome();
  bool readForward();
  bool readVacation();
  int writeToFWD(const std::string &path);
  int writeToMsg(const std::string &path);

  std::string strErrKey;
  std::string strUser;
  bool blValid;
  [[maybe_unused]] bool blDirty = false;  // of no use; it has its place among the others
  std::string strHomePath;
  bool blEnableForward;
  bool blKeepCopy;
  std::string strForwardAddr;
  bool blEnableReply;
  std::string strReplySubject;
  std::string strReplyMessage;
};

#endif  // POSTWELL_PERSONAL_H_
