// Every driver command as a flat-function call with valid arguments, for the tests that
// check all of them the same way: the debug line it writes, the status it gives when the
// driver fails it, and the name under which the simulator lets a test fail it.
#ifndef ZOVDX_TESTS_MKFD_FLAT_CALLS_H_
#define ZOVDX_TESTS_MKFD_FLAT_CALLS_H_

#include <functional>
#include <vector>

#include "mkfd/include/dmkfd.h"

namespace mkfd_test {

struct FlatCall {
  const char* sim_name;  // the simulator's name of the request
  const char* line;      // the debug line, after its time stamp
  vdxStatus on_failure;  // the status when the driver fails the request
  std::function<vdxStatus()> call;
};

// The arguments are valid on the simulator's default machine once an instance exists on
// pipe 0 of node 0 and the group 0x77 (group id 3) exists; pipe 1 must be free. A successful
// ConnectZouds leaves its socket in *ServiceSocket().
const std::vector<FlatCall>& Commands();
int* ServiceSocket();

}  // namespace mkfd_test

#endif  // ZOVDX_TESTS_MKFD_FLAT_CALLS_H_
