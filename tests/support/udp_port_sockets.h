// The kernel's view of the UDP sockets bound to one local port, from
// /proc/net/udp and udp6: how many there are, the datagrams they dropped and
// the bytes waiting in their receive queues. Tests and benchmarks use it to
// tell "the receiver has read everything" and "the kernel lost datagrams".
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace dtl_test {

struct PortSockets {
  int count = 0;
  uint64_t drops = 0;
  uint64_t rx_queue = 0;
};

inline PortSockets ReadPortSockets(uint16_t port) {
  PortSockets total;
  for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
    std::ifstream in(table);
    std::string line, slot, local, remote, state, queues, skip;
    std::getline(in, line);  // column names
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      uint64_t drops = 0;
      if (!(fields >> slot >> local >> remote >> state >> queues) || local.rfind(':') == std::string::npos ||
          std::strtoul(local.c_str() + local.rfind(':') + 1, nullptr, 16) != port)
        continue;
      for (int i = 0; i < 7; ++i) fields >> skip;  // timer to pointer
      if (!(fields >> drops) || queues.find(':') == std::string::npos) continue;
      ++total.count;
      total.drops += drops;
      total.rx_queue += std::strtoull(queues.c_str() + queues.find(':') + 1, nullptr, 16);
    }
  }
  return total;
}

}  // namespace dtl_test
