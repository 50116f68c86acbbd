// The source text, then postmap(1) or postalias(1).
//
// They are given a configuration folder of its own: with that of the server, a
// setting that only the daemons care about would keep a table from being built.
// They fill an lmdb table in one transaction, so a failure leaves the old one.

#include "postfix_map.h"

#include <kestcore.h>

#include <cstdlib>

#include "common/replace_file.h"

namespace {

constexpr char kFolder[] = "/var/packages/Postwell/target/etc/postfix/";
constexpr char kBuilderConfig[] = "/var/packages/Postwell/target/etc/postmap";
constexpr char kPostmap[] = "/usr/sbin/postmap";

std::string failed(const std::string &builder, const std::string &tables) {
  return builder + " failed for " + tables + "; the lines above tell why";
}

}  // namespace

std::string postfixMapText(const std::string &name) { return kFolder + name; }

std::string replacePostfixMap(const std::string &name, const std::string &text,
                              MapFormat format) {
  const std::string path = postfixMapText(name);
  std::string failure = replaceFile(path, text);
  if (!failure.empty()) return failure;

  const std::string table = "lmdb:" + path;
  const char *const builder =
      format == MapFormat::kTable ? kPostmap : "/usr/sbin/postalias";
  if (KLIBCExec(builder, "-c", kBuilderConfig, table.c_str(), nullptr) < 0)
    return failed(builder, table);
  return "";
}

std::string replacePostfixMaps(const std::vector<MapText> &maps) {
  std::string tables[4], all;
  const char *arguments[4] = {};
  for (size_t i = 0; i < maps.size(); ++i) {
    const std::string path = postfixMapText(maps[i].name);
    std::string failure = replaceFile(path, maps[i].text);
    if (!failure.empty()) return failure;
    tables[i] = "lmdb:" + path;
    arguments[i] = tables[i].c_str();
    all += (i == 0 ? "" : " ") + tables[i];
  }
  // what "-c" names otherwise: the host runs programs with four arguments at most
  if (setenv("MAIL_CONFIG", kBuilderConfig, 1) != 0 ||
      KLIBCExec(kPostmap, arguments[0], arguments[1], arguments[2], arguments[3]) < 0)
    return failed(kPostmap, all);
  return "";
}
