// A compiled region: its bytecode, the facts the compiler learned about each
// statement and value, and the native code made from them.
#pragma once
#include <cstdint>
#include <vector>

#include "core/token.h"
#include "jit/bytecode.h"
#include "values/types.h"
#include "values/variables.h"

namespace jit {

// Static type of an evaluation-stack value. Integers travel as int64; `type`
// is their declared type and `mag` bounds their magnitude (|v| <= mag),
// which tells whether a result may have widened to INT64.
struct ValType {
  std::uint8_t type = 0;  // 1..3 integer, 4 SINGLE, 5 DOUBLE
  double mag = 0;
  bool is_int() const { return type >= values::kInteger && type <= values::kInt64; }
  bool is_float() const { return type == values::kSingle || type == values::kDouble; }
};

// Where the interpreter takes over at a statement: its line, token position
// and the number of THEN branches it sits in.
struct StmtInfo {
  std::uint32_t line;
  std::uint32_t pos;
  std::uint8_t if_depth;
  std::int16_t while_id = -1;  // a WHILE statement: its loop
};

struct ForInfo {
  values::Descriptor* d;
  std::uint8_t var_type;
  ValType limit, step;
  bool step_const;
  int step_sign;                  // when step_const
  std::uint32_t end_line, end_pos;  // just behind the FOR statement
  std::uint32_t for_line, for_pos;  // the FOR keyword
  std::vector<int> same_var;      // other FOR slots of the region on the same variable
};

struct WhileInfo {
  std::uint32_t line, pos;  // the WHILE statement
};

struct GosubSite {
  std::uint32_t ret_line, ret_pos;
  std::uint8_t if_depth;
};

// Per-instruction facts for the code generator.
struct InstrInfo {
  ValType result;          // type of the value the instruction leaves on top
  values::Descriptor* d = nullptr;  // variables and arrays
  int stmt = -1;           // statement the instruction belongs to
  std::int16_t store_addr = -1;  // array store: after this instruction, its element is addressed
  std::uint8_t role = 0;   // kRole* below
  std::int16_t id = -1;    // FOR slot, WHILE index or GOSUB site
};
enum : std::uint8_t { kRoleNone, kRoleForCheck, kRoleWhileTest, kRoleWend, kRoleEndOfProgram };

struct RegionCode {
  std::vector<Instr> code;
  std::vector<InstrInfo> info;
  std::vector<StmtInfo> stmts;
  std::vector<ForInfo> fors;
  std::vector<WhileInfo> whiles;
  std::vector<GosubSite> gosubs;
  std::uint32_t first_line = 0, last_line = 0;
  // PARFOR bodies: the subroutine segments appended to the region, and
  // whether some call target found no room.
  int segments = 0;
  bool segments_full = false;
};
constexpr int kMaxSegments = 64;

// Compile from (line index, token position). False when nothing worth
// running natively came out; `why` then says what stopped it.
bool compile_region(std::uint32_t line, std::uint32_t pos, RegionCode* out, const char** why);

// Whether the statement at (line, pos) is one the compiler takes on its own,
// whatever surrounds it: the JIT-capable test behind PROFILE MARK's colours
// and PARFOR's check of every statement of its body.
bool statement_capable(std::uint32_t line, std::uint32_t pos);

}  // namespace jit
