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
    std::string line;
    std::getline(in, line);  // column names
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retransmit, uid, timeout, inode, ref,
          pointer;
      uint64_t drops = 0;
      if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmit >> uid >>
            timeout >> inode >> ref >> pointer >> drops))
        continue;
      const size_t colon = local.rfind(':');
      if (colon == std::string::npos || std::strtoul(local.c_str() + colon + 1, nullptr, 16) != port)
        continue;
      ++total.count;
      total.drops += drops;
      const size_t queue_colon = queues.find(':');
      if (queue_colon != std::string::npos)
        total.rx_queue += std::strtoull(queues.c_str() + queue_colon + 1, nullptr, 16);
    }
  }
  return total;
}

}  // namespace dtl_test
