// Members become what aliases(5) can say: users and the users of groups by name, other
// aliases by name, outside addresses as they are.
//
// In that format a member that begins with "|", "/" or ":include:" is a command, a
// file or a list, quoted or not. Nothing of the kind may come from the table, so
// names are checked by what they are (an account, an alias, an address) before they
// are written, and quoted afterwards.

#include "alias_map.h"

#include <algorithm>
#include <set>

#include "common/host_name.h"
#include "common/text.h"

namespace {

constexpr size_t kLongestLocalPart = 64;
constexpr char kAtom[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.!#$%&'*+-=?^_`{}~";

std::string named(const std::string &name) { return "\"" + printable(name) + "\""; }

bool beginsLikeAnInstruction(const std::string &text) {
  return text.find_first_of("|/:\\") == 0;
}

// A name as one word of the format.
std::string quoted(const std::string &name) {
  if (name.find_first_not_of(kAtom) == std::string::npos) return name;
  std::string text = "\"";
  for (const char c : name) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

// The aliases as Postfix sees them, and the map while it grows.
class Builder {
 public:
  Builder(const std::map<std::string, std::vector<MemberInfo>> &aliases,
          const Accounts &accounts)
      : accounts_(accounts) {
    for (const auto &[name, members] : aliases) add(name, members);
    for (const auto &[name, members] : aliases_) breakCircles(name);
  }

  AliasMap build() {
    for (const auto &[name, members] : aliases_) addLine(name, members);
    if (written_.count("postmaster") == 0) map_.text += "postmaster: root\n";
    if (written_.count("mailer-daemon") == 0) map_.text += "MAILER-DAEMON: postmaster\n";
    return std::move(map_);
  }

 private:
  void tell(const std::string &problem) { map_.problems.push_back(problem); }

  void leaveOut(const std::string &alias, const std::string &member,
                const std::string &reason) {
    tell("alias " + named(alias) + ": member " + named(member) +
         " is left out: " + reason);
  }

  void add(const std::string &name, const std::vector<MemberInfo> &members) {
    if (!isAliasName(name)) {
      tell("alias " + named(name) + " is left out: it cannot be the name of an alias");
      return;
    }
    std::vector<MemberInfo> &known = aliases_[lowerCase(name)];
    known.insert(known.end(), members.begin(), members.end());
  }

  // Walks from one alias along its members that are aliases, and removes each member
  // that leads back into the walk. Not recursive: a chain may be as long as the table.
  void breakCircles(const std::string &start) {
    if (visited_.count(start) != 0) return;
    struct Step {
      std::string alias;
      size_t next;  // index of its member to look at
    };
    std::vector<Step> walk{{start, 0}};
    std::set<std::string> onWalk{start};
    while (!walk.empty()) {
      Step &step = walk.back();
      std::vector<MemberInfo> &members = aliases_[step.alias];
      if (step.next == members.size()) {
        visited_.insert(step.alias);
        onWalk.erase(step.alias);
        walk.pop_back();
        continue;
      }
      const MemberInfo &member = members[step.next];
      const std::string name = lowerCase(member.strName);
      if (member.type != ALIAS || aliases_.count(name) == 0 ||
          visited_.count(name) != 0) {
        step.next++;
      } else if (onWalk.count(name) != 0) {
        leaveOut(step.alias, member.strName, "the aliases lead back to each other");
        members.erase(members.begin() + static_cast<std::ptrdiff_t>(step.next));
      } else {
        step.next++;
        onWalk.insert(name);
        walk.push_back({name, 0});  // `step` and `member` are stale from here
      }
    }
  }

  void addLine(const std::string &name, const std::vector<MemberInfo> &members) {
    std::vector<std::string> words;
    for (const MemberInfo &member : members) addWords(name, member, &words);
    if (words.empty()) {
      tell("alias " + named(name) + " is left out: no member is left");
      return;
    }
    std::set<std::string> seen;
    std::string line;
    for (const std::string &word : words)
      if (seen.insert(word).second) line += (line.empty() ? "" : ", ") + word;
    map_.text += quoted(name) + ": " + line + "\n";
    written_.insert(name);
  }

  void addWords(const std::string &alias, const MemberInfo &member,
                std::vector<std::string> *words) {
    switch (member.type) {
      case USER:
        return addUser(alias, member.strName, words);
      case GROUP:
        return addGroup(alias, member.strName, words);
      case ALIAS:
        if (aliases_.count(lowerCase(member.strName)) == 0)
          return leaveOut(alias, member.strName, "there is no such alias");
        return words->push_back(quoted(lowerCase(member.strName)));
      case EXTADDR:
        if (!isSafeAddress(member.strName))
          return leaveOut(alias, member.strName, "it is no mail address");
        return words->push_back(member.strName);
    }
    leaveOut(alias, member.strName, "it is of an unknown kind");
  }

  void addUser(const std::string &alias, const std::string &user,
               std::vector<std::string> *words) {
    const std::string name = accounts_.mailbox(user);
    if (name.empty()) return leaveOut(alias, user, "there is no such user");
    if (beginsLikeAnInstruction(name) || hasControl(name) || !isUtf8(name))
      return leaveOut(alias, user, "the alias database cannot carry the name");
    words->push_back(quoted(name));
  }

  void addGroup(const std::string &alias, const std::string &group,
                std::vector<std::string> *words) {
    std::vector<std::string> users;
    if (!accounts_.members(group, &users))
      return leaveOut(alias, group, "there is no such group");
    if (users.empty()) return leaveOut(alias, group, "the group has no users");
    for (const std::string &user : users) addUser(alias, user, words);
  }

  const Accounts &accounts_;
  std::map<std::string, std::vector<MemberInfo>> aliases_;  // by name in small letters
  std::set<std::string> visited_;
  std::set<std::string> written_;
  AliasMap map_;
};

}  // namespace

bool isAliasName(const std::string &text) {
  return !text.empty() && text.size() <= kLongestLocalPart && !hasControl(text) &&
         isUtf8(text) && text.find('@') == std::string::npos && text.front() != ' ' &&
         text.back() != ' ' && !beginsLikeAnInstruction(text);
}

bool isSafeAddress(const std::string &text) {
  const size_t at = text.find('@');
  if (at == std::string::npos || at == 0 || at > kLongestLocalPart) return false;
  const std::string local = text.substr(0, at);
  return local.find_first_not_of(kAtom) == std::string::npos && local.front() != '.' &&
         local.back() != '.' && local.find("..") == std::string::npos &&
         isHostName(text.substr(at + 1));
}

AliasMap makeAliasMap(const std::map<std::string, std::vector<MemberInfo>> &aliases,
                      const Accounts &accounts) {
  return Builder(aliases, accounts).build();
}
