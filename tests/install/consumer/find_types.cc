// Reads qualified type names, one a line, and says which the registry lacks.
// It refers to no generated type itself: every registration must come from
// linking the library. Exit 0 when every name is found.
#include <iostream>
#include <string>

#include "mroute/entity/kiv/type_registry.h"

int main() {
  int names = 0;
  int missing = 0;
  for (std::string name; std::getline(std::cin, name);) {
    if (name.empty()) continue;
    ++names;
    if (Kiv::findType(name) == nullptr) {
      std::cout << "missing " << name << "\n";
      ++missing;
    }
  }
  std::cout << names - missing << " of " << names << " types found\n";
  return missing == 0 && names > 0 ? 0 : 1;
}
