// vxlanctl: asks and drives the VXLAN agent of this switch.

#include <iostream>
#include <string>
#include <vector>

#include "Memtab/BusError.h"
#include "tools/vxlanctl/Run.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  Memtab::endOnTruncation("vxlanctl");
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const Vxlanctl::ExitCode code = Vxlanctl::run(arguments, std::cin, std::cout, std::cerr);
  std::cout.flush();
  return std::cout.good() ? code : Vxlanctl::refused;
}
