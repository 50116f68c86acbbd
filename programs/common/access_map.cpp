// Keys are those of access(5): an address, a domain (which stands for its subdomains as
// well), a host or network address. An account is written once for each local domain:
// "name@" would match the name in every domain of the world.
//
// An import cannot tell a client's address from a domain, so a client's name may be
// either whatever its kind.

#include "common/access_map.h"

#include <arpa/inet.h>

#include <algorithm>
#include <map>

#include "common/host_name.h"
#include "common/postfix_map.h"
#include "common/text.h"

namespace {

// In the order of the table's index, which costs no sorting.
constexpr char kQuery[] =
    "SELECT name_type, name, type, access FROM access_table ORDER BY name_type, name, "
    "type;";

// One to three leading numbers of an IPv4 address.
bool isNetwork(const std::string &text) {
  const auto dots = std::count(text.begin(), text.end(), '.');
  std::string address = text;
  for (auto i = dots; i < 3; ++i) address += ".0";
  return dots < 3 && isAddress(address);
}

// The address as Postfix writes the client's.
std::string canonicalAddress(const std::string &text) {
  unsigned char address[sizeof(in6_addr)];
  char written[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET6, text.c_str(), address) != 1 ||
      inet_ntop(AF_INET6, address, written, sizeof written) == nullptr)
    return text;
  return written;
}

std::string clientProblem(const AccessInfo &rule) {
  if (rule.nameType == NAME_ACCOUNT) return "a client has no account";
  if (isAddress(rule.name) || isNetwork(rule.name) || isHostName(rule.name)) return "";
  return "it is no host, domain or IP address";
}

class Builder {
 public:
  explicit Builder(const std::vector<std::string> &domains) : domains_(domains) {}

  void add(const AccessInfo &rule) {
    const std::string problem = accessRuleProblem(rule);
    if (!problem.empty()) return leaveOut(rule, problem);
    RuleKeys<AccessInfo> &keys = keys_[rule.type];
    if (rule.type == TYPE_CLIENT)
      keys.add(lowerCase(canonicalAddress(rule.name)), rule);
    else if (rule.nameType != NAME_ACCOUNT)
      keys.add(lowerCase(rule.name), rule);
    else
      for (const std::string &domain : domains_)
        keys.add(lowerCase(TrimDomainName(rule.name)) + '@' + domain, rule);
  }

  RuleMaps build() {
    for (const Type type : {TYPE_CLIENT, TYPE_SENDER, TYPE_RECIPIENT}) {
      MapText map{"access_" + accessTypeWord(type), ""};
      keys_[type].each(
          [&map](const std::string &key, const AccessInfo &rule) {
            map.text.append(key).append(1, ' ').append(
                Access::StatusToStr(rule.status)) += '\n';
          },
          [this](const AccessInfo &rule, const AccessInfo &first) {
            compare(rule, first);
          });
      made_.maps.push_back(std::move(map));
    }
    return std::move(made_);
  }

 private:
  void leaveOut(const AccessInfo &rule, const std::string &reason) {
    made_.problems.push_back(accessTypeWord(rule.type) + " rule " + inQuotes(rule.name) +
                             " is left out: " + reason);
  }

  // The first rule of a key counts. What an account is in one domain, a rule on that
  // very address may say otherwise.
  void compare(const AccessInfo &rule, const AccessInfo &first) {
    if (first.status == rule.status ||
        (rule.nameType == NAME_ACCOUNT && first.nameType == NAME_ADDRESS))
      return;
    leaveOut(rule, "the rule " + inQuotes(first.name) + " says otherwise");
  }

  const std::vector<std::string> &domains_;
  std::map<Type, RuleKeys<AccessInfo>> keys_;
  RuleMaps made_;
};

}  // namespace

std::deque<AccessInfo> readAccessRules() {
  std::deque<AccessInfo> rules;
  const std::vector<std::string> maps = {postfixMapText("access_client"),
                                         postfixMapText("access_sender"),
                                         postfixMapText("access_recipient")};
  readRuleRows(kQuery, maps, [&rules](const TableRow &row) {
    rules.emplace_back(static_cast<Type>(row.integer(2)),
                       static_cast<NameType>(row.integer(0)), "",
                       static_cast<AccessStatus>(row.integer(3)));
    rules.back().name = row.text(1);  // moved, not copied
  });
  return rules;
}

std::string accessTypeWord(Type type) {
  switch (type) {
    case TYPE_SENDER:
      return "sender";
    case TYPE_RECIPIENT:
      return "recipient";
    case TYPE_CLIENT:
      return "client";
    default:
      return "unknown";
  }
}

std::string accessRuleProblem(const AccessInfo &rule) {
  if (accessTypeWord(rule.type) == "unknown") return "it is of an unknown type";
  if (rule.status < ACCESS_PERMIT || rule.status > ACCESS_DISCARD)
    return "its action is unknown";
  if (rule.type == TYPE_CLIENT) return clientProblem(rule);
  switch (rule.nameType) {
    case NAME_ACCOUNT:
      return isRuleAccount(TrimDomainName(rule.name)) ? "" : "it is no account name";
    case NAME_ADDRESS:
      return isRuleAddress(rule.name) ? "" : "it is no mail address";
    case NAME_DOMAIN:
      return isHostName(rule.name) ? "" : "it is no domain name";
    default:
      return "it is of an unknown kind";
  }
}

RuleMaps makeAccessMaps(const std::deque<AccessInfo> &rules,
                        const std::vector<std::string> &domains) {
  Builder builder(domains);
  const auto isAccount = [](const AccessInfo &rule) {
    return rule.nameType == NAME_ACCOUNT;
  };
  for (const AccessInfo &rule : rules)
    if (!isAccount(rule)) builder.add(rule);
  for (const AccessInfo &rule : rules)
    if (isAccount(rule)) builder.add(rule);
  return builder.build();
}
