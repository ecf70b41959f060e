// The network subsystem's statements and functions: the TCP statement with
// its client slots, NETINFO, and DNS$, HTTPGET$, HTTPSTATUS, NETERROR$,
// NETPRESENT, TCPRECV$, TCPCONNECTED, TCPEOF. The operating system's side is
// host/net.h.
#pragma once
#include "core/keywords.h"
#include "core/statements.h"
#include "values/builtins.h"

namespace net {

void stmt_tcp(const core::Token*& t);
void stmt_netinfo(const core::Token*& t);

constexpr void install_net_statements(core::HandlerTable& table) { table[core::KW_TCP] = stmt_tcp; }

inline constexpr core::NamedStatement kNetNamed[] = {
    {"NETINFO", stmt_netinfo},
};
inline constexpr int kNetNamedCount = static_cast<int>(sizeof kNetNamed / sizeof kNetNamed[0]);

const values::BuiltinGroup& net_builtins();

// TCP slots close with the files (END, CLEAR, RUN, NEW, LOAD, the end of
// the session); this chains onto the executor's hook.
void install_hooks();
// Close every TCP slot.
void close_all_slots();

}  // namespace net
