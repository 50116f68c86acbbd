// Puts a generated table in the place of the one that Postfix reads.

#ifndef POSTWELL_PROGRAMS_POSTFIX_MAP_H_
#define POSTWELL_PROGRAMS_POSTFIX_MAP_H_

#include <string>
#include <vector>

// What the text of a table looks like, and thereby which program builds it.
enum class MapFormat { kTable, kAliases };  // postmap(1): "key value"; postalias(1)

// Where the text of a table stands.
std::string postfixMapText(const std::string &name);

// Writes `text` to etc/postfix/<name> of the package, all at once, and builds the
// table that Postfix looks things up in from it; running daemons see the new one
// without a reload. Returns what went wrong, empty when nothing did. After a
// failure the table from before is still in force.
std::string replacePostfixMap(const std::string &name, const std::string &text,
                              MapFormat format);

// A table and the text that postmap(1) makes it from.
struct MapText {
  std::string name;
  std::string text;
};

// The same for up to four tables at once, which postmap(1) builds one after the other in
// one run. After a failure those that were not yet built are still in force.
std::string replacePostfixMaps(const std::vector<MapText> &maps);

#endif  // POSTWELL_PROGRAMS_POSTFIX_MAP_H_
