// The shared library's dynamic symbol table holds exactly the interface: the
// QVA_, ECI_ and clapi names (and the code-page pair), plain C names only,
// and every application function of the public header.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> definedDynamicSymbols() {
  std::set<std::string> names;
  const std::string command = std::string("nm -D --defined-only '") + QVA_SHARED_LIBRARY + "'";
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return names;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name) names.insert(name);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return names;
}

// Every name a public header declares with QVA_API: functions and the
// code-page table.
std::set<std::string> headerNames() {
  std::set<std::string> names;
  for (const char *header : {QVA_API_HEADER, QVA_CHANNEL_HEADER}) {
    std::ifstream in(header);
    std::stringstream text;
    text << in.rdbuf();
    const std::string content = text.str();
    static const std::regex declaration(R"(QVA_API\s+[A-Za-z_][A-Za-z_0-9 ]*?[\s*]([A-Za-z_][A-Za-z_0-9]+)\s*[(\[])");
    for (auto it = std::sregex_iterator(content.begin(), content.end(), declaration); it != std::sregex_iterator();
         ++it) {
      names.insert((*it)[1]);
    }
  }
  return names;
}

bool allowed(const std::string &name) {
  return name.rfind("QVA_", 0) == 0 || name.rfind("ECI_", 0) == 0 || name.rfind("clapi", 0) == 0 ||
         name == "getCurrentCcsid" || name == "CodeSetTable";
}

TEST(Exports, OnlyInterfaceNamesAreExported) {
  const std::set<std::string> symbols = definedDynamicSymbols();
  ASSERT_FALSE(symbols.empty());
  for (const std::string &name : symbols) {
    EXPECT_TRUE(allowed(name)) << "unexpected export " << name;
    EXPECT_NE(name.rfind("_Z", 0), 0u) << "C++ name exported: " << name;
  }
}

TEST(Exports, EveryHeaderNameIsExported) {
  const std::set<std::string> functions = headerNames();
  // Guards the header parse itself: 17 QVA_ functions, 11 ECI_ functions,
  // getCurrentCcsid and CodeSetTable.
  ASSERT_EQ(functions.size(), 30u);
  const std::set<std::string> symbols = definedDynamicSymbols();
  for (const std::string &name : functions) EXPECT_EQ(symbols.count(name), 1u) << name << " is not exported";
}

}  // namespace
