// What the network statements and functions share: the NETERROR$ text,
// turning a host fault into the system's message, the wait that Esc and the
// window closing end, and name lookups on a worker thread.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/token.h"
#include "host/net.h"
#include "host/platform.h"
#include "values/types.h"

namespace net {

// NETERROR$: the last network operation's failure, "" after a success.
extern std::string last_error;

// The wait every blocking call gets: it ends on Esc (taken from the key
// queue) and on the stop flag.
extern const host::NetWait kInterruptible;

// A failed operation: records the detail for NETERROR$ and raises the
// fault's message; a cancelled wait pauses the program with "Break" at the
// statement instead (CONT runs it again). Always false.
bool report(host::NetFault f, const std::string& detail);

// Numeric addresses of a name (forward) or the name of an address
// (reverse), looked up on a worker thread so that the wait can be ended.
host::NetFault lookup(const std::string& name, bool reverse, std::vector<std::string>* out, std::string* detail);

// The slot functions (tcp.cpp), listed with the others in one group.
bool f_tcprecv(const core::Token*& t, values::Value* out);
bool f_tcpconnected(const core::Token*& t, values::Value* out);
bool f_tcpeof(const core::Token*& t, values::Value* out);

// Helpers for statements and functions that parse their own arguments.
bool fail(const char* message);
bool text_of(const core::Token*& t, std::string* out);  // a string expression
bool int_of(const core::Token*& t, std::int64_t* out);  // a numeric expression
// A time-out in milliseconds: 1 to 2^31-1.
bool check_timeout(std::int64_t ms);

}  // namespace net
