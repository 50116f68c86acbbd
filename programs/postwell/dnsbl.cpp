// postwell dnsbl list|add|remove|test: the lists in the DNS of clients and domains whose
// mail is refused.

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "command.h"
#include "common/text.h"
#include "nouns.h"
#include "protection.h"

namespace {

using Names = std::vector<std::string>;
using Servers = std::list<DNSBinfo>;

constexpr char kNoList[] = "there is no blocklist.";

const std::vector<std::string> kKinds = {"rbl", "rhsbl"};  // as DNSBType numbers them

std::string kindOf(const DNSBinfo &server) {
  return server.type == RHSBL ? "rhsbl" : "rbl";
}

Servers serversOf(const Names &names, DNSBType kind) {
  Servers servers;
  for (const std::string &name : names) servers.push_back({name, kind});
  return servers;
}

// Those among the stored that are the named one; names of domains have no case.
Servers like(const DNSBinfo &named) {
  Servers found;
  for (const DNSBinfo &server : blocklists().getDNSBList())
    if (server.type == named.type &&
        lowerCase(server.strServerName) == lowerCase(named.strServerName))
      found.push_back(server);
  return found;
}

void tellWhenOff() {
  if (!blocklists().isDNSBLEnabled())
    std::cerr
        << "None is asked: \"postwell security set --dnsbl yes\" switches them on.\n";
}

Values readAll() {
  Values all = Values::array();
  for (const DNSBinfo &server : blocklists().getDNSBList())
    all.push_back({{"kind", kindOf(server)}, {"name", server.strServerName}});
  return all;
}

void printAll(const Values &servers) {
  for (const Values &server : servers)
    std::cout << server["kind"].get<std::string>() << ' '
              << printable(server["name"].get_ref<const std::string &>()) << '\n';
  if (servers.empty()) return tell(kNoList);
  tellWhenOff();
}

void save() {
  if (blocklists().applySettings() != 0)
    throw Failure(kFailed,
                  "the blocklists could not be stored, or Postfix cannot follow them.\n"
                  "Run as root. A line above or the system log tells which step failed;\n"
                  "correct the cause and repeat the command.");
  std::cout << counted(blocklists().getDNSBList().size(), "blocklist") << " now"
            << (blocklists().isDNSBLEnabled() ? "; Postfix follows.\n" : ".\n");
  tellWhenOff();
}

void add(const Names &names, DNSBType kind) {
  for (const DNSBinfo &server : serversOf(names, kind)) {
    if (like(server).empty())
      blocklists().addDNSBList({server});
    else
      std::cout << server.strServerName << " is among them already.\n";
  }
  save();
}

void remove(const Names &names, DNSBType kind) {
  Servers servers;
  for (const DNSBinfo &named : serversOf(names, kind)) {
    Servers found = like(named);
    if (found.empty())
      throw Failure(kFailed, inQuotes(named.strServerName) +
                                 " is not among them; nothing was changed.\n\"postwell "
                                 "dnsbl list\" shows what is.");
    servers.splice(servers.end(), found);
  }
  blocklists().delDNSBList(servers);
  save();
}

// ---- test

// What a blocklist says of a name.
enum class Answer { kListed, kNotListed, kOther, kNone };

// Postfix takes the answers 127.0.0.2 to 127.0.0.11 for "listed". With others many lists
// say that they do not want to be asked from here.
Answer ask(const std::string &name) {
  addrinfo hints{}, *found = nullptr;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  const int error = getaddrinfo((name + '.').c_str(), nullptr, &hints, &found);
  if (error == EAI_NONAME || error == EAI_NODATA) return Answer::kNotListed;
  if (error != 0) return Answer::kNone;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> all(found, freeaddrinfo);
  for (const addrinfo *one = found; one != nullptr; one = one->ai_next) {
    const auto *const address = reinterpret_cast<const sockaddr_in *>(one->ai_addr);
    const uint32_t number = ntohl(address->sin_addr.s_addr);
    if (number >= 0x7f000002 && number <= 0x7f00000b) return Answer::kListed;
  }
  return Answer::kOther;
}

// The entries that RFC 5782 asks of every list: one that is always there, and one that
// never is.
struct TestNames {
  std::string present, absent;
};

TestNames testNames(const DNSBinfo &server) {
  if (server.type == RHSBL) return {"test.", "invalid."};
  return {"2.0.0.127.", "1.0.0.127."};
}

Values examine(const DNSBinfo &server) {
  const TestNames names = testNames(server);
  const Answer present = ask(names.present + server.strServerName);
  const Answer absent = ask(names.absent + server.strServerName);
  const bool isAlive = present == Answer::kListed;
  const bool isSane = absent == Answer::kNotListed;
  std::string verdict = "works";
  if (present == Answer::kNone || absent == Answer::kNone)
    verdict = "gives no answer";
  else if (present == Answer::kOther || absent == Answer::kOther)
    verdict =
        "answers with other numbers than 127.0.0.2 to 127.0.0.11, which Postfix takes "
        "for an error";
  else if (!isAlive)
    verdict = "lacks its test entry: it is dead, or no such list";
  else if (!isSane)
    verdict = "lists everything: it would refuse all mail";
  return {{"kind", kindOf(server)},
          {"name", server.strServerName},
          {"alive", isAlive},
          {"sane", isSane},
          {"verdict", verdict}};
}

void printTests(const Values &tests) {
  if (tests.empty()) tell(kNoList);
  for (const Values &test : tests)
    std::cout << printable(test["name"].get_ref<const std::string &>()) << ' '
              << test["verdict"].get<std::string>() << ".\n";
}

// ---- the command line

using Operands = std::pair<Names, DNSBType>;

// Adds the names and their kind; the result tells what was given.
std::function<Operands()> addServers(CLI::App &command, const CLI::Validator &check) {
  const auto names = std::make_shared<Names>();
  command.add_option("NAME", *names, "Names of blocklists")
      ->required()
      ->transform(check)
      ->type_name("");
  const Rule kinds = oneOf(kKinds);
  const CLI::Option *const kind =
      command.add_option("--kind", "What they list: addresses (rbl) or domains (rhsbl)")
          ->transform(kinds.validator)
          ->type_name(kinds.takes);
  return [names, kind] {
    return Operands(*names,
                    kind->count() > 0 ? static_cast<DNSBType>(kind->as<int>()) : RBL);
  };
}

// What is to be removed need not be a proper name.
void addVerb(CLI::App &noun, const std::string &verb, const std::string &help,
             void (*run)(const Names &, DNSBType), const CLI::Validator &check) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const auto servers = addServers(*command, check);
  command->callback([servers, run] {
    const auto [names, kind] = servers();
    run(names, kind);
  });
}

Values examineAll() {
  Values tests = Values::array();
  for (const DNSBinfo &server : blocklists().getDNSBList())
    tests.push_back(examine(server));
  return tests;
}

void expectFit(const Values &tests) {
  for (const Values &test : tests)
    if (!test["alive"] || !test["sane"])
      throw Failure(kFailed, "not all blocklists are fit for use");
}

}  // namespace

void addDnsbl(CLI::App &app) {
  CLI::App &noun = addNoun(app, "dnsbl", "The blocklists in the DNS");
  addReader(noun, "list", "List them", readAll, printAll);
  addVerb(noun, "add", "Add blocklists", add, blocklistName().validator);
  addVerb(noun, "remove", "Remove blocklists", remove, CLI::Validator());
  addReader(noun, "test",
            "Ask each list for an entry that is always there and one that never is",
            examineAll, printTests, expectFit);
}
