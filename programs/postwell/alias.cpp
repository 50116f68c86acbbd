// postwell alias list|show|add|remove|rename|delete: mail names and their members.
//
// A command reads all aliases, works out what they are to be, lets the library make the
// change, and reads back what became of it: when the library meets damage while it makes
// a change, it makes the file anew and reports success.
//
// To Postfix names have no case, so an alias is found under any spelling and keeps its
// own. Only new names have to keep the rules; what is stored already can always be
// shown, renamed and deleted.

#include "alias.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <tuple>

#include "command.h"
#include "common/alias_map.h"
#include "common/alias_table.h"
#include "common/text.h"
#include "nouns.h"
#include "readable.h"

namespace {

using Members = std::list<MemberInfo>;
using Names = std::list<std::string>;

struct Kind {
  MemberType type;
  const char *word;
  const char *option;
  const char *takes;
};

constexpr Kind kKinds[] = {{USER, "user", "--user", "NAME"},
                           {GROUP, "group", "--group", "NAME"},
                           {ALIAS, "alias", "--alias", "NAME"},
                           {EXTADDR, "address", "--address", "ADDRESS"}};

const char *wordFor(MemberType type) {
  for (const Kind &kind : kKinds)
    if (kind.type == type) return kind.word;
  return "unknown";  // the file may hold any number
}

std::string described(const MemberInfo &member) {
  return wordFor(member.type) + (" " + inQuotes(member.strName));
}

bool holds(const Members &members, const MemberInfo &member) {
  return std::find(members.begin(), members.end(), member) != members.end();
}

// ---- the stored aliases

AliasTable readAll() {
  Alias file;
  AliasTable aliases;
  const std::string problem = readAliases(file, &aliases);
  if (!problem.empty()) throw Failure(kFailed, problem + ".\nRun as root.");
  return aliases;
}

AliasTable::const_iterator find(const AliasTable &aliases, const std::string &name) {
  const auto exact = aliases.find(name);
  if (exact != aliases.end()) return exact;
  return std::find_if(aliases.begin(), aliases.end(), [&name](const auto &entry) {
    return lowerCase(entry.first) == lowerCase(name);
  });
}

AliasTable::const_iterator get(const AliasTable &aliases, const std::string &name) {
  const auto found = find(aliases, name);
  if (found == aliases.end())
    throw Failure(kFailed, "there is no alias " + inQuotes(name) +
                               ".\n\"postwell alias list\" shows all of them.");
  return found;
}

using Rows = std::set<std::tuple<std::string, std::string, MemberType>>;

Rows rowsOf(const AliasTable &aliases) {
  Rows rows;
  for (const auto &[name, members] : aliases)
    for (const MemberInfo &member : members)
      rows.emplace(name, member.strName, member.type);
  return rows;
}

// Whether all of `after` is stored now, and nothing of what it drops from `before`.
bool isDone(const AliasTable &before, const AliasTable &after, const AliasTable &now) {
  const Rows old = rowsOf(before), wanted = rowsOf(after), stored = rowsOf(now);
  return std::includes(stored.begin(), stored.end(), wanted.begin(), wanted.end()) &&
         std::all_of(old.begin(), old.end(), [&](const auto &row) {
           return wanted.count(row) != 0 || stored.count(row) == 0;
         });
}

// Closing the file commits what a failed operation has left open.
template <class Operation>
bool succeeds(Operation operation) {
  Alias file;
  return file.getError() == 0 && file.load() == 0 && operation(file) == 0;
}

// Makes the change, which turns `before` into `after`, and publishes it.
template <class Operation>
void change(const AliasTable &before, const AliasTable &after, Operation operation) {
  const bool succeeded = succeeds(operation);
  if (!isDone(before, after, readAll()))
    throw succeeded
        ? Failure(kFailed,
                  "the change is not stored: the aliases were damaged, and alias.db has\n"
                  "been made anew. Restore it from a backup or add the aliases again.")
        : Failure(
              kFailed,
              "the aliases are not as wanted. Run as root, and again if someone else\n"
              "was changing them; the system log tells which step failed.");
  Alias file;
  if (file.getError() != 0 || file.save() != 0)
    throw saveFailed(
        true, "run \"/var/packages/Postwell/target/scripts/DaemonConfSet.sh alias\"");
}

// ---- what is refused

// An alias as a member is stored under the alias's own spelling.
MemberInfo checked(MemberInfo member, const AliasTable &aliases,
                   const Accounts &accounts) {
  if (member.type == ALIAS) {
    const auto found = find(aliases, member.strName);
    if (found != aliases.end()) member.strName = found->first;
  }
  const auto isAlias = [&aliases](const std::string &name) {
    return find(aliases, name) != aliases.end();
  };
  Resolved result;
  resolve(member, isAlias, accounts, &result);
  if (result.destinations.empty() && !result.unreachable.empty())
    throw Failure(kWrongUsage, described(member) +
                                   " is refused: " + result.unreachable.front().second +
                                   "; nothing was changed");
  return member;
}

void refuseLoop(const AliasTable &before, const AliasTable &after,
                const Accounts &accounts) {
  const auto old = makeAliasMap(before, accounts).loops;
  const auto now = makeAliasMap(after, accounts).loops;
  if (now.size() > old.size())
    throw Failure(kWrongUsage,
                  "refused, because mail would go round in a circle, or along more\n"
                  "aliases in a row than Postfix follows; nothing was changed");
}

// ---- the verbs

// Aliases have no case, as members neither.
bool isSame(const MemberInfo &one, const MemberInfo &other) {
  return one == other || (one.type == ALIAS && other.type == ALIAS &&
                          lowerCase(one.strName) == lowerCase(other.strName));
}

Values describe(const AliasTable::value_type &alias) {
  Values members = Values::array();
  for (const MemberInfo &member : alias.second)
    members.push_back({{"kind", wordFor(member.type)}, {"name", member.strName}});
  return {{"name", alias.first}, {"members", members}};
}

Values describeAll() {
  Values all = Values::array();
  for (const auto &alias : readAll()) all.push_back(describe(alias));
  return all;
}

Values describeOne(const std::string &name) { return describe(*get(readAll(), name)); }

void printMembers(const Values &alias, const char *separator) {
  const char *before = "";
  for (const Values &member : alias["members"]) {
    std::cout << before << member["kind"].get<std::string>() << ' '
              << readable(member["name"].get<std::string>());
    before = separator;
  }
  std::cout << '\n';
}

void printAll(const Values &all) {
  if (all.empty()) tell("there is no alias.");
  for (const Values &alias : all) {
    std::cout << readable(alias["name"].get<std::string>()) << ": ";
    printMembers(alias, ", ");
  }
}

void add(const std::string &name, const Members &members) {
  const AliasTable before = readAll();
  const SystemAccounts accounts;
  const auto found = find(before, name);
  const std::string alias = found == before.end() ? name : found->first;
  AliasTable after = before;
  Members added;
  for (const MemberInfo &given : members) {
    const MemberInfo member = checked(given, before, accounts);
    if (holds(after[alias], member)) {
      std::cout << described(member) << " is a member of " << inQuotes(alias)
                << " already.\n";
    } else {
      after[alias].push_back(member);
      added.push_back(member);
    }
  }
  refuseLoop(before, after, accounts);
  change(before, after, [&](Alias &file) { return file.addMember(alias, added); });
  std::cout << "Alias " << inQuotes(alias) << " has "
            << counted(after[alias].size(), "member") << "; Postfix follows.\n";
}

// Takes the aliases out, as members too, and those that have no member left then.
// Returns the names of all that went.
Names takeOut(AliasTable *aliases, const Names &names) {
  Names gone;
  for (Names next = names; !next.empty();) {
    for (const std::string &name : next) aliases->erase(name);
    const auto isGone = [&next](const MemberInfo &member) {
      return member.type == ALIAS &&
             std::find(next.begin(), next.end(), member.strName) != next.end();
    };
    Names emptied;
    for (auto &[name, members] : *aliases) {
      members.remove_if(isGone);
      if (members.empty()) emptied.push_back(name);
    }
    gone.splice(gone.end(), next);
    next = emptied;
  }
  return gone;
}

// `how` ends the sentence about an alias that was named.
void deleteAll(const AliasTable &before, const Names &names, const std::string &how) {
  AliasTable after = before;
  const Names gone = takeOut(&after, names);
  change(before, after, [&](Alias &file) { return file.delAlias(gone); });
  for (const std::string &name : gone) {
    const bool named = std::find(names.begin(), names.end(), name) != names.end();
    std::cout << "Alias " << inQuotes(name) << " is gone"
              << (named ? how : " as well: it has no member left") << ".\n";
  }
  std::cout << "Postfix follows.\n";
}

void deleteNamed(const Names &names) {
  const AliasTable before = readAll();
  Names stored;
  for (const std::string &name : names) stored.push_back(get(before, name)->first);
  stored.sort();
  stored.unique();
  deleteAll(before, stored, "");
}

void remove(const std::string &name, const Members &members) {
  const AliasTable before = readAll();
  const auto found = get(before, name);
  const std::string &alias = found->first;
  const Members &stored = found->second;
  Members removed;
  for (const MemberInfo &member : members) {
    const auto isIt = [&member](const MemberInfo &other) {
      return isSame(other, member);
    };
    if (std::none_of(stored.begin(), stored.end(), isIt))
      throw Failure(kFailed, described(member) + " is no member of " + inQuotes(alias) +
                                 "; nothing was changed");
    std::copy_if(stored.begin(), stored.end(), std::back_inserter(removed), isIt);
  }
  AliasTable after = before;
  auto &left = after[alias];
  const auto isRemoved = [&removed](const MemberInfo &member) {
    return holds(removed, member);
  };
  left.remove_if(isRemoved);
  if (left.empty()) return deleteAll(before, {alias}, " with its last member");
  change(before, after, [&](Alias &file) { return file.delMember(alias, removed); });
  std::cout << "Alias " << inQuotes(alias) << " has " << counted(left.size(), "member")
            << "; Postfix follows.\n";
}

void rename(const std::string &oldName, const std::string &newName) {
  const AliasTable before = readAll();
  const std::string old = get(before, oldName)->first;
  const auto other = find(before, newName);
  // another spelling of its own name is a new name
  if (other != before.end() && (other->first != old || newName == old))
    throw Failure(kWrongUsage, "there is an alias " + inQuotes(other->first) +
                                   " already; nothing was changed");
  AliasTable after = before;
  auto entry = after.extract(old);
  entry.key() = newName;
  after.insert(std::move(entry));
  for (auto &[name, members] : after)
    for (MemberInfo &member : members)
      if (member.type == ALIAS && member.strName == old) member.strName = newName;
  refuseLoop(before, after, SystemAccounts());
  change(before, after, [&](Alias &file) { return file.changeAliasName(old, newName); });
  std::cout << "Alias " << inQuotes(old) << " is " << inQuotes(newName)
            << " now; Postfix follows.\n";
}

// ---- the command line

CLI::Option *addName(CLI::App &command, const std::string &name,
                     const std::string &help) {
  return command.add_option(name, help)->required()->type_name("");
}

void addReaders(CLI::App &noun) {
  addReader(noun, "list", "List the aliases with their members", describeAll, printAll);
  const auto name = std::make_shared<std::string>();
  CLI::App &show = addReader(
      noun, "show", "Show the members of an alias", [name] { return describeOne(*name); },
      [](const Values &alias) { printMembers(alias, "\n"); });
  show.add_option("NAME", *name, "The alias")->required()->type_name("");
}

// Adds a verb that works on members, each named by an option of its kind.
CLI::Option *addMemberVerb(CLI::App &noun, const std::string &verb,
                           const std::string &help, bool isNew,
                           void (*run)(const std::string &, const Members &)) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const auto members = std::make_shared<Members>();
  for (const Kind &kind : kKinds) {
    const auto remember = [members,
                           type = kind.type](const std::vector<std::string> &names) {
      for (const std::string &name : names) {
        MemberInfo member;
        member.strName = name;
        member.type = type;
        members->push_back(member);
      }
    };
    CLI::Option *const option = command->add_option_function<std::vector<std::string>>(
        kind.option, remember, std::string("A member of this kind; may be repeated"));
    option->type_name(kind.takes)->allow_extra_args(false);
    if (isNew && kind.type == EXTADDR) option->transform(mailAddress().validator);
  }
  CLI::Option *const name = addName(*command, "NAME", "The alias");
  command->callback([name, members, run] {
    if (members->empty())
      throw Failure(kWrongUsage,
                    "name a member with --user, --group, --alias or --address");
    run(name->as<std::string>(), *members);
  });
  return name;
}

}  // namespace

void addAlias(CLI::App &app) {
  CLI::App &noun = addNoun(app, "alias", "Mail names that deliver to several members");
  addReaders(noun);
  addMemberVerb(noun, "add", "Add members to an alias, which is made if need be", true,
                add)
      ->transform(aliasName().validator);
  setExample(*noun.get_subcommand("add"), "postwell alias add sales --user bob");
  addMemberVerb(noun, "remove", "Remove members from an alias", false, remove);

  CLI::App *const renaming = noun.add_subcommand("rename", "Rename an alias");
  const CLI::Option *const oldName = addName(*renaming, "OLD", "The alias");
  const CLI::Option *const newName =
      addName(*renaming, "NEW", "Its new name")->transform(aliasName().validator);
  renaming->callback([oldName, newName] {
    rename(oldName->as<std::string>(), newName->as<std::string>());
  });

  CLI::App *const deletion = noun.add_subcommand("delete", "Delete aliases");
  const auto names = std::make_shared<Names>();
  deletion->add_option("NAME", *names, "The aliases")->required()->type_name("");
  deletion->callback([names] { deleteNamed(*names); });
}
