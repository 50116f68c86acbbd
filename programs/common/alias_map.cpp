// Members become what aliases(5) can say: users and the users of groups by name, other
// aliases by name, outside addresses as they are.
//
// The walk along the aliases breaks circles, which Postfix would follow a hundred times
// before it bounces the mail, and finds the aliases that come to nothing.

#include "common/alias_map.h"

#include <algorithm>

#include "common/text.h"

namespace {

// Needs no quotes. "#" is left out: a line that begins with it is a comment.
constexpr char kPlain[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.!$%&'*+-=?^_`{}~";

// A local name as one word of the format.
std::string quoted(const std::string &name) {
  if (name.find_first_not_of(kPlain) == std::string::npos) return name;
  std::string text = "\"";
  for (const char c : name) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

class Builder {
 public:
  Builder(const AliasTable &aliases, const Accounts &accounts) : accounts_(accounts) {
    for (const auto &[name, members] : aliases) addName(name);
    for (const auto &[name, members] : aliases) addMembers(name, members);
    for (auto line = lines_.begin(); line != lines_.end(); ++line) walk(line);
  }

  AliasMap build() {
    for (const auto &[name, line] : lines_)
      if (line.left > 0) write(name, line);
    // A user of that name, whom "root" may lead to, has the mail already.
    const bool isUser = !accounts_.mailbox("postmaster").empty();
    writeDefault("postmaster", isUser ? "postmaster" : "root");
    writeDefault("MAILER-DAEMON", "postmaster");
    return std::move(map_);
  }

 private:
  enum class Walk { kNotYet, kUnderWay, kDone };

  struct Line {
    std::vector<Destination> words;  // one that was left out has no name
    size_t left = 0;                 // how many were not
    Walk walk = Walk::kNotYet;
  };
  using Lines = std::map<std::string, Line>;

  void tell(const std::string &problem) { map_.problems.push_back(problem); }

  void tellLeftOut(const std::string &alias, const std::string &member,
                   const std::string &reason) {
    tell("alias " + inQuotes(alias) + ": member " + inQuotes(member) +
         " is left out: " + reason);
  }

  void addName(const std::string &name) {
    const std::string problem = aliasNameProblem(name);
    if (problem.empty())
      names_.insert(lowerCase(name));
    else
      tell("alias " + inQuotes(name) + " is left out: the name " + problem);
  }

  void addMembers(const std::string &name, const std::vector<MemberInfo> &members) {
    if (!aliasNameProblem(name).empty()) return;
    Line &line = lines_[lowerCase(name)];
    std::set<std::pair<MemberType, std::string>> seen;
    for (const Destination &word : line.words) seen.emplace(word.type, word.name);
    for (const MemberInfo &member : members) {
      const Resolved result = resolve(member, names_, accounts_);
      for (const auto &[who, why] : result.unreachable) tellLeftOut(name, who, why);
      if (result.destinations.empty() && result.unreachable.empty())
        tellLeftOut(name, member.strName, "the group has no users");
      for (const Destination &word : result.destinations)
        if (seen.emplace(word.type, word.name).second) line.words.push_back(word);
    }
    line.left = line.words.size();
  }

  // The alias to which the word leads; end() when it leads to a mailbox or elsewhere.
  Lines::iterator aliasOf(const Lines::iterator &line, const Destination &word) {
    const std::string name = lowerCase(word.name);
    if (word.type == EXTADDR || (word.type == USER && name == line->first))
      return lines_.end();
    return lines_.find(name);
  }

  void leaveOut(const Lines::iterator &line, Destination *word,
                const std::string &reason) {
    tellLeftOut(line->first, word->name, reason);
    word->name.clear();
    if (--line->second.left == 0) tellEmpty(line->first);
  }

  void tellEmpty(const std::string &name) {
    tell("alias " + inQuotes(name) + " is left out: no member is left");
  }

  // Walks along the aliases that one leads to, each once. Not recursive: a chain may be
  // as long as the table.
  void walk(const Lines::iterator &start) {
    struct Step {
      Lines::iterator line;
      size_t next;  // index of the word to look at
    };
    std::vector<Step> steps;
    const auto enter = [&steps, this](const Lines::iterator &line) {
      line->second.walk = Walk::kUnderWay;
      if (line->second.left == 0) tellEmpty(line->first);
      steps.push_back({line, 0});
    };
    if (start->second.walk == Walk::kNotYet) enter(start);
    while (!steps.empty()) {
      const auto [line, next] = steps.back();
      if (next == line->second.words.size()) {
        line->second.walk = Walk::kDone;
        steps.pop_back();
        continue;
      }
      Destination &word = line->second.words[next];
      const auto target = aliasOf(line, word);
      if (target != lines_.end() && target->second.walk == Walk::kNotYet) {
        enter(target);  // and look at the word again afterwards
        continue;
      }
      if (target != lines_.end()) judge(line, &word, target->second);
      steps.back().next++;
    }
  }

  void judge(const Lines::iterator &line, Destination *word, const Line &target) {
    if (target.walk == Walk::kUnderWay) {
      leaveOutOfCircle(line, word);
    } else if (target.left == 0 && word->type == ALIAS) {
      leaveOut(line, word, "that alias is left out");
    }  // a user whose alias is left out has a mailbox
  }

  void leaveOutOfCircle(const Lines::iterator &line, Destination *word) {
    const size_t known = map_.problems.size();
    leaveOut(line, word, "the aliases lead back to each other");
    map_.circles.push_back(map_.problems[known]);
  }

  void write(const std::string &name, const Line &line) {
    map_.text += quoted(name) + ":";
    const char *separator = " ";
    std::set<std::string> seen{""};  // a user and an alias of the same name are one word
    for (const Destination &word : line.words) {
      if (!seen.insert(word.name).second) continue;
      map_.text += separator + (word.type == EXTADDR ? word.name : quoted(word.name));
      separator = ", ";
    }
    map_.text += '\n';
  }

  void writeDefault(const std::string &name, const std::string &member) {
    const auto line = lines_.find(lowerCase(name));
    if (line == lines_.end() || line->second.left == 0)
      map_.text += name + ": " + member + "\n";
  }

  const Accounts &accounts_;
  std::set<std::string> names_;  // in small letters
  Lines lines_;                  // by name in small letters
  AliasMap map_;
};

}  // namespace

AliasMap makeAliasMap(const AliasTable &aliases, const Accounts &accounts) {
  return Builder(aliases, accounts).build();
}
