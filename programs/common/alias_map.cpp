// Members become what aliases(5) can say: users and the users of groups by name, other
// aliases by name, outside addresses as they are.
//
// The walk along the aliases breaks circles and chains that Postfix would give up
// following, bouncing the mail, and finds the aliases that come to nothing.

#include "common/alias_map.h"

#include <algorithm>
#include <numeric>

#include "common/text.h"

namespace {

// Needs no quotes, like letters and digits. "#" is left out: a line that begins with it
// is a comment.
constexpr char kPlain[] = ".$&'*+-=?^_`{}~";

// How many aliases may lead to each other in a row: Postfix 3.7 follows 24 and bounces
// the mail as a loop after that; a user's own forwarding counts as well.
constexpr size_t kLongestChain = 20;

// A local name as one word of the format.
std::string quoted(const std::string &name) {
  if (isMadeOf(name, kPlain)) return name;
  std::string text = "\"";
  for (const char c : name) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

// Leaves out repeated names. A user counts for more than an alias of his name: he has a
// mailbox also when that alias comes to nothing.
void dropRepeated(std::vector<Destination> *words) {
  if (words->size() < 2) return;
  std::vector<size_t> byName(words->size());
  std::iota(byName.begin(), byName.end(), size_t{0});
  std::stable_sort(byName.begin(), byName.end(), [words](size_t one, size_t other) {
    return (*words)[one].name < (*words)[other].name;
  });
  for (size_t i = 1, first = 0; i < byName.size(); ++i) {
    Destination &kept = (*words)[byName[first]], &word = (*words)[byName[i]];
    if (word.name != kept.name) {
      first = i;
      continue;
    }
    if (word.type == USER) kept.type = USER;
    word.name.clear();
  }
  words->erase(std::remove_if(words->begin(), words->end(),
                              [](const Destination &word) { return word.name.empty(); }),
               words->end());
}

class Builder {
 public:
  Builder(const AliasTable &aliases, const Accounts &accounts) : accounts_(accounts) {
    const std::vector<Source> sources = addLines(aliases);
    auto line = lines_.begin();
    for (const Source &source : sources) {
      while (line->name != source.name) ++line;
      addMembers(&*line, *source.alias);
    }
    for (size_t i = 0; i < lines_.size(); ++i) walk(i);
  }

  AliasMap build() {
    for (const Line &line : lines_)
      if (line.left > 0) write(line);
    // A user of that name, whom "root" may lead to, has the mail already.
    const bool isUser = !accounts_.mailbox("postmaster").empty();
    if (!isUser && !isWritten("postmaster") && find("root") != kNone &&
        !isWritten("root"))
      tell(
          "mail to root and postmaster cannot be delivered: name a reader with "
          "\"postwell alias add root --user NAME\"");
    writeDefault("postmaster", isUser ? "postmaster" : "root");
    writeDefault("MAILER-DAEMON", "postmaster");
    return std::move(map_);
  }

 private:
  // An alias of the table and its name in small letters. Several may have one name.
  struct Source {
    std::string name;
    const AliasTable::value_type *alias;
  };

  enum class Walk { kNotYet, kUnderWay, kDone };

  struct Line {
    std::string name;
    std::vector<Destination> words;  // one that was left out has no name
    size_t left = 0;                 // how many were not, once the walk was here
    size_t chain = 1;                // aliases in a row from here on, this one included
    Walk walk = Walk::kNotYet;
  };

  static constexpr size_t kNone = static_cast<size_t>(-1);

  void tell(const std::string &problem) { map_.problems.push_back(problem); }

  void tellLeftOut(const std::string &alias, const std::string &member,
                   const std::string &reason) {
    tell("alias " + inQuotes(alias) + ": member " + inQuotes(member) +
         " is left out: " + reason);
  }

  void tellLoop(const std::string &alias, const std::string &member,
                const std::string &reason) {
    tellLeftOut(alias, member, reason);
    map_.loops.push_back(map_.problems.back());
  }

  void tellCircle(const std::string &alias, const std::string &member) {
    tellLoop(alias, member, "the aliases lead back to each other");
  }

  void tellEmpty(const std::string &alias) {
    tell("alias " + inQuotes(alias) + " is left out: no member is left");
  }

  std::vector<Source> addLines(const AliasTable &aliases) {
    std::vector<Source> sources;
    sources.reserve(aliases.size());
    for (const auto &alias : aliases) {
      const std::string problem = aliasNameProblem(alias.first);
      if (problem.empty())
        sources.push_back({lowerCase(alias.first), &alias});
      else
        tell("alias " + inQuotes(alias.first) + " is left out: the name " + problem);
    }
    const auto before = [](const Source &one, const Source &other) {
      return one.name < other.name;
    };
    if (!std::is_sorted(sources.begin(), sources.end(), before))  // capitals
      std::stable_sort(sources.begin(), sources.end(), before);
    lines_.reserve(sources.size());
    for (const Source &source : sources)
      if (lines_.empty() || lines_.back().name != source.name) {
        lines_.emplace_back();
        lines_.back().name = source.name;
      }
    return sources;
  }

  // The line of the alias, kNone without one.
  size_t find(const std::string &name) const {
    const auto line = std::lower_bound(
        lines_.begin(), lines_.end(), name,
        [](const Line &one, const std::string &other) { return one.name < other; });
    if (line == lines_.end() || line->name != name) return kNone;
    return static_cast<size_t>(line - lines_.begin());
  }

  void addMembers(Line *line, const AliasTable::value_type &alias) {
    const auto &[name, members] = alias;
    const auto isAlias = [this](const std::string &small) {
      return find(small) != kNone;
    };
    line->words.reserve(line->words.size() + members.size());
    Resolved result;
    for (const MemberInfo &member : members) {
      resolve(member, isAlias, accounts_, &result);
      for (const auto &[who, why] : result.unreachable) tellLeftOut(name, who, why);
      if (result.destinations.empty() && result.unreachable.empty())
        tellLeftOut(name, member.strName, "the group has no users");
      for (Destination &word : result.destinations)
        if (word.type == ALIAS && word.name == line->name)
          tellCircle(name, word.name);
        else
          line->words.push_back(std::move(word));
    }
  }

  // The alias to which the word leads, kNone when that is a mailbox or elsewhere.
  size_t aliasOf(const Line &line, const Destination &word) const {
    if (word.type == EXTADDR) return kNone;
    const std::string name = lowerCase(word.name);
    return name == line.name ? kNone : find(name);
  }

  // Where a walk stands: the line, and its word to look at.
  struct Step {
    size_t line;
    size_t word;
  };

  void enter(size_t index, std::vector<Step> *steps) {
    Line &line = lines_[index];
    line.walk = Walk::kUnderWay;
    dropRepeated(&line.words);
    line.left = line.words.size();
    if (line.left == 0) tellEmpty(line.name);
    steps->push_back({index, 0});
  }

  // Walks along the aliases that one leads to, each once. Not recursive: a chain may be
  // as long as the table.
  void walk(size_t start) {
    std::vector<Step> steps;
    if (lines_[start].walk == Walk::kNotYet) enter(start, &steps);
    while (!steps.empty()) {
      const Step step = steps.back();
      Line &line = lines_[step.line];
      if (step.word == line.words.size()) {
        line.walk = Walk::kDone;
        steps.pop_back();
        continue;
      }
      Destination &word = line.words[step.word];
      const size_t target = aliasOf(line, word);
      if (target != kNone && lines_[target].walk == Walk::kNotYet) {
        enter(target, &steps);  // and look at the word again afterwards
        continue;
      }
      if (target != kNone) judge(&line, &word, lines_[target]);
      steps.back().word++;
    }
  }

  void judge(Line *line, Destination *word, const Line &target) {
    if (target.walk == Walk::kUnderWay)
      tellCircle(line->name, word->name);
    else if (target.left == 0 && word->type == ALIAS)
      tellLeftOut(line->name, word->name, "that alias is left out");
    else if (target.left == 0)
      return;  // a user whose alias is left out has a mailbox
    else if (target.chain == kLongestChain)
      tellLoop(line->name, word->name,
               "more than " + std::to_string(kLongestChain) + " aliases in a row");
    else
      return lengthen(line, target);
    word->name.clear();
    if (--line->left == 0) tellEmpty(line->name);
  }

  static void lengthen(Line *line, const Line &target) {
    line->chain = std::max(line->chain, target.chain + 1);
  }

  void write(const Line &line) {
    map_.text.append(quoted(line.name)).append(":");
    const char *separator = " ";
    for (const Destination &word : line.words) {
      if (word.name.empty()) continue;
      map_.text += separator;
      map_.text += word.type == EXTADDR ? word.name : quoted(word.name);
      separator = ", ";
    }
    map_.text += '\n';
  }

  bool isWritten(const std::string &name) const {
    const size_t line = find(lowerCase(name));
    return line != kNone && lines_[line].left > 0;
  }

  void writeDefault(const std::string &name, const std::string &member) {
    if (!isWritten(name)) map_.text += name + ": " + member + "\n";
  }

  const Accounts &accounts_;
  std::vector<Line> lines_;  // sorted; names in small letters
  AliasMap map_;
};

}  // namespace

AliasMap makeAliasMap(const AliasTable &aliases, const Accounts &accounts) {
  return Builder(aliases, accounts).build();
}
