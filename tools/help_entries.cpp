// The HELP table: every statement, function, operator, pseudo-variable and
// direct command, with its category, syntax and reference text. The docs/
// reference pages are generated from these rows (tools/help_docs.cpp), and a
// test fails when the two drift apart or when a keyword or built-in function
// has no row.
#include "tools/help.h"

namespace tools {

const HelpCategory kHelpCategories[] = {
    {"PROGRAM", "entering, listing, loading, saving and running programs"},
    {"CONTROL", "jumps, subroutines, decisions and loops"},
    {"ERRORS", "errors, their trapping and the break key"},
    {"VARIABLES", "assignment, arrays, DATA and user functions"},
    {"TYPES", "type suffixes and literals"},
    {"OPERATORS", "arithmetic, comparison and logical operators"},
    {"FUNCTIONS", "numeric, string, conversion and hypercomplex functions"},
    {"CONSOLE", "text output, input lines and the text screen"},
    {"KEYBOARD", "keys, the key queue and the clipboard"},
    {"POINTER", "the mouse and its events"},
    {"GRAPHICS", "drawing on the framebuffer, bitmaps"},
    {"SPRITES", "sprites over the drawn scene"},
    {"AUDIO", "the synthesizer: notes, instruments and live controls"},
    {"MIDI", "the MIDI song player"},
    {"WAV", "WAV, FLAC and Opus slots and their playback"},
    {"FILE", "file numbers, directories, memory images and state files"},
    {"NETWORK", "TCP, DNS and HTTP"},
    {"MACHINE", "time, timers, the command line and the system"},
    {"MEMORY", "addresses, PEEK and POKE, the memory explorer"},
    {"TOOLS", "developer tools: HELP, AUDIT, XREF, RENUM, TRACE, the debugger"},
    {"SPEED", "the JIT, PARFOR and the profiler"},
};
const int kHelpCategoryCount = static_cast<int>(sizeof kHelpCategories / sizeof kHelpCategories[0]);

const HelpEntry kHelpEntries[] = {
    // ---------------------------------------------------------------- PROGRAM
    {"RUN", "PROGRAM", "RUN [line | . | file$]",
     "Clear the variables and run the program from its first line, from the given line, or from the current "
     "edit line (.). With a file name, LOAD that file first (.BAS when no extension is given) and run it.",
     nullptr},
    {"LIST", "PROGRAM", "LIST [from][-[to]] [NOWAIT] | LIST . | LIST ERL",
     "List program lines: a single number lists that line (\"Undefined line number\" when it is not stored), "
     "from-to a range with either end left out, . the current edit line, ERL the line of the last error. The "
     "listing pauses when the screen is full (any key goes on, Esc stops) unless NOWAIT is given. Lines that "
     "carry a breakpoint are listed in the breakpoint colours.",
     nullptr},
    {"LOAD", "PROGRAM", "LOAD file$[,R]",
     "Replace the program with an ASCII source file (.BAS when no extension is given); variables are "
     "cleared and files closed. Every line of the file must start with a line number (\"Direct statement in "
     "file\"). ,R runs the program at once.",
     nullptr},
    {"SAVE", "PROGRAM", "SAVE file$[,A]",
     "Write the program as ASCII text: each line as its number, one blank and its text, ended by CR LF (.BAS "
     "when no extension is given). ,A is accepted; programs are always saved as text.",
     nullptr},
    {"MERGE", "PROGRAM", "MERGE file$",
     "Add the lines of an ASCII source file to the program; a line with the number of a stored line replaces "
     "it. Direct mode only (\"Illegal direct\" in a program).",
     nullptr},
    {"NEW", "PROGRAM", "NEW",
     "Delete the program and every variable, close the files and forget the run state (CONT is no longer "
     "possible).",
     nullptr},
    {"DELETE", "PROGRAM", "DELETE line | DELETE from-to | DELETE .",
     "Delete program lines: one line, a range with either end left out, or the current edit line.", nullptr},
    {"AUTO", "PROGRAM", "AUTO [start | .][,increment]",
     "Number new lines automatically, from 10 in steps of 10 by default. A number that is already stored is "
     "shown with * behind it, and Enter alone keeps that line. Esc ends AUTO. Direct mode only.",
     nullptr},
    {"EDIT", "PROGRAM", "EDIT line | EDIT . | EDIT ERL",
     "Put a stored line (or the current edit line, or the line of the last error) into the line editor; Enter "
     "stores the changed line.",
     nullptr},
    {"RENUM", "PROGRAM", "RENUM [new][,[old][,increment]]",
     "Renumber the program: the lines from old on (all lines by default) become new, new+increment, ... (10 "
     "and 10 by default). Every line reference follows: GOTO and GOSUB targets, THEN and ELSE line numbers, ON "
     "... GOTO/GOSUB lists, ON ERROR/ON BREAK/ON TIMER/ON MOUSE targets, RESTORE, RESUME, RETURN, RUN, LIST, "
     "DELETE, EDIT and TRON ranges, and comparisons with ERL. A renumbering that would put lines out of order, "
     "onto kept lines or past 4294967294 is refused with \"Illegal function call\" and changes nothing; "
     "references to lines that do not exist are reported as \"Undefined line n in m\" and left as they are. "
     "Breakpoints move with their lines. Direct mode only.",
     nullptr},
    {"CONT", "PROGRAM", "CONT | CONT NEXT",
     "Continue a program paused by STOP, a breakpoint, Esc or a single step, at the statement where it "
     "stopped. CONT NEXT runs exactly one statement and pauses again with \"Step at line, column col\" (a "
     "GOSUB steps into the subroutine). \"Can't continue\" after the program was changed or ended with an "
     "error.",
     nullptr},
    {"BREAK", "PROGRAM", "BREAK line[,line...] | BREAK DELETE [line[,line...]] | BREAK CLEAR | BREAK LIST",
     "Breakpoints: the program pauses with \"Breakpoint in n\" before the line runs, and CONT goes on. BREAK "
     "DELETE removes the lines given, or all without a list; BREAK CLEAR removes all; BREAK LIST shows them "
     "(\"(no breakpoints)\"). At most 64 (\"Too many breakpoints\"). Direct mode only; the F12 debugger sets "
     "and clears them too.",
     nullptr},
    {"TRON", "PROGRAM", "TRON [from[-to]]",
     "Line tracing: \"[n]\" is printed as each program line in the range (every line by default) starts.",
     nullptr},
    {"TROFF", "PROGRAM", "TROFF", "Switch line tracing off.", nullptr},
    {"CHAIN", "PROGRAM", "CHAIN file$[,line]",
     "Load another program and run it from its first line or from line. The variables named by COMMON keep "
     "their values, bounds and types; all others are cleared; open files stay open.",
     nullptr},
    {"COMMON", "PROGRAM", "COMMON var[,var...]",
     "Name the variables that CHAIN passes to the next program; an array is written with (). At most 512 "
     "(\"Too many variables\"); the same name twice is \"Duplicate definition\".",
     nullptr},

    // ---------------------------------------------------------------- CONTROL
    {"GOTO", "CONTROL", "GOTO line",
     "Continue at the given line. The target may be any numeric expression (\"Undefined line number\" when "
     "that line is not stored).",
     nullptr},
    {"GOSUB", "CONTROL", "GOSUB line",
     "Call the subroutine at line; its RETURN comes back behind the GOSUB. At most 128 calls may be open "
     "(\"Out of memory\").",
     nullptr},
    {"RETURN", "CONTROL", "RETURN [line]",
     "Return from the latest GOSUB (or event handler). With a line, the return point is dropped and the "
     "program continues at that line. \"RETURN without GOSUB\" when no call is open.",
     nullptr},
    {"IF", "CONTROL",
     "IF condition THEN statements | line [ELSE statements | line] | IF condition GOTO line [ELSE ...]",
     "Single-line decision: when the condition is nonzero the THEN part runs, otherwise the ELSE part; a line "
     "number alone is a GOTO. ELSE belongs to the nearest IF without one; either part may be empty; at most "
     "64 IFs on a line (\"Too many nested IFs\"). There is no block IF: the decision ends with its line.",
     nullptr},
    {"THEN", "CONTROL", "IF condition THEN statements | line",
     "Part of IF: what follows runs when the condition is true.", nullptr},
    {"ELSE", "CONTROL", "IF condition THEN ... ELSE statements | line",
     "Part of IF: what follows runs when the condition is false.", nullptr},
    {"FOR", "CONTROL", "FOR v = start TO limit [STEP s] ... NEXT [v] | FOR END",
     "Counted loop over a numeric variable. The body runs while v has not passed the limit, zero times when "
     "start is already past it; NEXT adds the step (1 when STEP is absent) and after the loop v holds the "
     "first value past the limit. STEP 0 repeats for ever. FOR END leaves the innermost loop and continues "
     "behind its NEXT. At most 4096 loops may be open.",
     nullptr},
    {"TO", "CONTROL", "FOR v = start TO limit | VIEW PRINT top TO bottom",
     "Separates the start and the limit of FOR and PARFOR, and the rows of VIEW PRINT.", nullptr},
    {"STEP", "CONTROL", "FOR v = start TO limit STEP s | PSET STEP(dx,dy)",
     "The increment of a FOR or PARFOR loop (1 when absent). In graphics statements STEP makes a point "
     "relative to the last point drawn.",
     nullptr},
    {"NEXT", "CONTROL", "NEXT [v[,v...]]",
     "End of a FOR loop: add the step and run the body again, or leave the loop. Each name closes one loop, "
     "innermost first; without a name the innermost loop. \"NEXT without FOR\" when no open loop matches.",
     nullptr},
    {"WHILE", "CONTROL", "WHILE condition ... WEND | WHILE END",
     "Loop while the condition is nonzero; it is tested at WHILE before every pass, and a false condition "
     "continues behind the matching WEND. WHILE END leaves the innermost WHILE loop. At most 4096 loops may be "
     "open.",
     nullptr},
    {"WEND", "CONTROL", "WEND",
     "End of a WHILE loop: back to its WHILE, which tests the condition again. \"WEND without WHILE\" when no "
     "loop is open.",
     nullptr},
    {"ON", "CONTROL",
     "ON n GOTO line[,line...] | ON n GOSUB line[,line...] | ON ERROR GOTO line | ON BREAK GOTO line | "
     "ON TIMER(n) GOSUB line | ON MOUSEMOVE GOSUB line",
     "Jump to the n-th line of the list (1 the first); 0, or an n beyond the list, goes on with the next "
     "statement; n outside 0..255 is \"Illegal function call\". ON ... GOSUB returns behind the statement. The "
     "other forms install handlers: see ON ERROR, ON BREAK, ON TIMER and ON MOUSEMOVE.",
     nullptr},
    {"END", "CONTROL", "END",
     "End the program and close the files. Sound that plays asynchronously keeps playing.", nullptr},
    {"STOP", "CONTROL", "STOP",
     "Pause the program with \"Break in n\"; CONT continues with the statement behind the STOP.", nullptr},
    {"REM", "CONTROL", "REM remark | ' remark", "A remark: the rest of the line is not part of the program.",
     "'"},

    // ---------------------------------------------------------------- ERRORS
    {"ON ERROR", "ERRORS", "ON ERROR GOTO line",
     "Trap errors: an error in the running program jumps to line instead of stopping it; ERR, ERL and ERROR$ "
     "tell what happened and RESUME continues. ON ERROR GOTO 0 switches trapping off. An error inside the "
     "handler is not trapped again and stops the program.",
     nullptr},
    {"ON BREAK", "ERRORS", "ON BREAK GOTO line",
     "Trap the break key (Esc): the program jumps to line instead of pausing with \"Break\"; RESUME "
     "continues. ON BREAK GOTO 0 restores the normal break.",
     nullptr},
    {"RESUME", "ERRORS", "RESUME | RESUME NEXT | RESUME 0 | RESUME line",
     "Leave an error or break handler: run the failing statement again (RESUME, RESUME 0), go on with the "
     "statement after it (RESUME NEXT), or continue at a line. \"RESUME without error\" outside a handler.",
     nullptr},
    {"ERROR", "ERRORS", "ERROR n",
     "Raise error n (1 to 255): ERR becomes n and ERROR$ \"User-defined error\". Other numbers are \"Illegal "
     "function call\".",
     nullptr},
    {"OPTION ERRORPRINT", "ERRORS", "OPTION ERRORPRINT 0 | 1",
     "1: a trapped error is printed too (its message, \" in \" and the line) before its handler runs. 0, the "
     "default: trapped errors are silent. Untrapped errors always print.",
     nullptr},
    {"ERR", "ERRORS", "ERR",
     "The number of the last error: 0 before any error, the n of ERROR n, otherwise the number of its message "
     "(255 for a message without a number).",
     nullptr},
    {"ERL", "ERRORS", "ERL",
     "The line of the last error; 0 when it happened in direct mode. LIST ERL and EDIT ERL show that line.",
     nullptr},
    {"ERROR$", "ERRORS", "ERROR$",
     "The message of the last error; empty before any error.", nullptr},

    // ---------------------------------------------------------------- VARIABLES
    {"LET", "VARIABLES", "[LET] variable = expression",
     "Assignment; LET may be left out. A scalar is created by its first assignment. Numbers are converted to "
     "the variable's type: integer types round halves away from zero and are \"Overflow\" outside their range; "
     "a string and a number do not mix (\"Type mismatch\").",
     nullptr},
    {"DIM", "VARIABLES", "DIM array(upper[,upper...])[, array(upper...)...]",
     "create an array with up to four dimensions; lower bounds come from OPTION BASE and the element type "
     "comes from the variable suffix/default type. Function names (including suffixed spellings such as SIN#) "
     "cannot be array names",
     nullptr},
    {"REDIM", "VARIABLES", "REDIM array(upper[,upper...])",
     "create or replace an array; contents are discarded and its address may change", nullptr},
    {"ERASE", "VARIABLES", "ERASE array[,array...]",
     "undefine arrays and reclaim their storage; an array that does not exist is ignored", nullptr},
    {"OPTION", "VARIABLES", "OPTION BASE 0|1 | OPTION ERRORPRINT 0|1 | OPTION PARTHREADS n",
     "Settings: the lower bound of arrays (OPTION BASE), printing of trapped errors (OPTION ERRORPRINT) and "
     "the PARFOR worker cap (OPTION PARTHREADS).",
     nullptr},
    {"OPTION BASE", "VARIABLES", "OPTION BASE 0 | 1",
     "The lower bound of every array dimension: 0 (the default after RUN, CLEAR and NEW) or 1.", "BASE"},
    {"DEFINT", "VARIABLES", "DEFINT letter[-letter][,...]",
     "Names without a suffix that begin with these letters are INTEGER (%).", nullptr},
    {"DEFLNG", "VARIABLES", "DEFLNG letter[-letter][,...]",
     "Names without a suffix that begin with these letters are LONG (&).", nullptr},
    {"DEFI64", "VARIABLES", "DEFI64 letter[-letter][,...]",
     "Names without a suffix that begin with these letters are INT64 (&&).", nullptr},
    {"DEFSNG", "VARIABLES", "DEFSNG letter[-letter][,...]",
     "Names without a suffix that begin with these letters are SINGLE (!).", nullptr},
    {"DEFDBL", "VARIABLES", "DEFDBL letter[-letter][,...]",
     "Names without a suffix that begin with these letters are DOUBLE (#), the default for every letter.",
     nullptr},
    {"DEFSTR", "VARIABLES", "DEFSTR letter[-letter][,...]",
     "Names without a suffix that begin with these letters are STRING ($).", nullptr},
    {"DEF", "VARIABLES", "DEF FNname[(parameter[,parameter...])] = expression",
     "Define a one-line user function, called as FNname(arguments) in expressions; up to 8 parameters, the "
     "result converted to the type of the name's suffix. The parameters hold the arguments while the function "
     "runs. In a program only.",
     "DEF FN|FN"},
    {"SWAP", "VARIABLES", "SWAP a, b",
     "Exchange the values of two variables or array elements of the same type.", nullptr},
    {"CLEAR", "VARIABLES", "CLEAR",
     "Close the files and clear every variable, array and user function, the loop and GOSUB stacks, the DATA "
     "pointer and the ON ERROR handler. Classic size arguments are accepted and ignored.",
     nullptr},
    {"DATA", "VARIABLES", "DATA constant[,constant...]",
     "Numbers and strings for READ, taken in program order; strings may be quoted.", nullptr},
    {"READ", "VARIABLES", "READ variable[,variable...]",
     "Assign the next DATA items to the variables (\"Out of DATA\" when none is left).", nullptr},
    {"RESTORE", "VARIABLES", "RESTORE [line]",
     "READ starts again with the first DATA item of the program, or of the given line.", nullptr},
    {"DCLVAL", "VARIABLES", "DCLVAL name$[,upper...]",
     "Declare a scalar, or create an array with 1 to 4 upper bounds, whose name is given at run time; an "
     "existing one is \"Duplicate definition\".",
     nullptr},
    {"SETVAR", "VARIABLES", "SETVAR value, name$[,subscript...]",
     "Assign a value to the variable or array element whose name is in name$ (a missing scalar is created; "
     "arrays must exist). The name is only a name: nothing in it is evaluated.",
     nullptr},
    {"GETVAR", "VARIABLES", "GETVAR(name$[,subscript...])",
     "The value of the variable or array element whose name is in name$; a scalar that does not exist reads "
     "as 0 or \"\".",
     nullptr},
    {"VARPTR", "VARIABLES", "VARPTR(variable)",
     "The 64-bit address of a variable's value (or of an array element).", nullptr},
    {"LBOUND", "VARIABLES", "LBOUND(array[,dimension])",
     "The lower bound of a dimension: the current OPTION BASE.", nullptr},
    {"UBOUND", "VARIABLES", "UBOUND(array[,dimension])",
     "The upper bound of a dimension (the first when none is given).", nullptr},

    // ---------------------------------------------------------------- TYPES
    {"%", "TYPES", "name% | 123%",
     "INTEGER: 16-bit whole numbers, -32768 to 32767. Unsuffixed whole literals below 32768 are INTEGER.",
     nullptr},
    {"&", "TYPES", "name& | 123&",
     "LONG: 32-bit whole numbers, -2147483648 to 2147483647.", nullptr},
    {"&&", "TYPES", "name&& | 123&&", "INT64: 64-bit whole numbers.", nullptr},
    {"!", "TYPES", "name! | 1.5!",
     "SINGLE: binary32 floating point, printed with 7 digits. Literals with a point or an exponent and at "
     "most 7 digits are SINGLE: write 0.1# when a DOUBLE variable needs the full 0.1.",
     nullptr},
    {"#", "TYPES", "name# | 1.5# | PRINT #n",
     "DOUBLE: binary64 floating point, printed with 15 digits; the type of names without a suffix unless a "
     "DEFxxx statement says otherwise. Before a file number, # marks the file (PRINT #1).",
     nullptr},
    {"$", "TYPES", "name$ | \"text\"", "STRING: text of code page 437 characters.", nullptr},
    {"@", "TYPES", "name@",
     "A@ - complex/quaternion/octonion; components .R .I .J .K .E1..E7; = and <> compare promoted component "
     "values while ordering comparisons are invalid; ^ accepts a real scalar exponent; transcendental "
     "functions support @",
     "A@|."},
    {"&H", "TYPES", "&Hdigits | &Odigits",
     "Hexadecimal (&H) and octal (&O) literals. Without a suffix they are INTEGER below 32768, LONG up to "
     "&H7FFFFFFF and INT64 above; they are never negative (&HFFFF is 65535).",
     "&O"},

    // ---------------------------------------------------------------- OPERATORS
    {"+", "OPERATORS", "a + b | s$ + t$",
     "Addition; joins strings. Integer results that do not fit their type widen (INTEGER to LONG to INT64).",
     nullptr},
    {"-", "OPERATORS", "a - b | -a", "Subtraction and negation; -2^2 is -4.", nullptr},
    {"*", "OPERATORS", "a * b",
     "Multiplication; for @ values the order matters (quaternions and octonions do not commute).", nullptr},
    {"/", "OPERATORS", "a / b",
     "Division, at least SINGLE; by zero \"Division by zero\". For @ values A@/B@ means A@*INV(B@).", nullptr},
    {"\\", "OPERATORS", "a \\ b",
     "Integer division, truncated toward zero; floating operands are rounded to whole numbers first.",
     nullptr},
    {"^", "OPERATORS", "a ^ b",
     "Power. 0^0 is 1, 0^-1 \"Division by zero\", a negative base with a fractional exponent \"Illegal "
     "function call\".",
     nullptr},
    {"MOD", "OPERATORS", "a MOD b",
     "Remainder of integer division; it takes the sign of a.", nullptr},
    {"=", "OPERATORS", "a = b",
     "Equal: -1 when true, 0 when false (also for strings, and for @ values component by component). In a "
     "statement, = assigns.",
     nullptr},
    {"<>", "OPERATORS", "a <> b", "Not equal: -1 when true, 0 when false.", nullptr},
    {"<", "OPERATORS", "a < b",
     "Less than: -1 when true, 0 when false; strings compare byte by byte; @ values cannot be ordered "
     "(\"Illegal comparison\").",
     nullptr},
    {"<=", "OPERATORS", "a <= b", "Less than or equal: -1 when true, 0 when false.", nullptr},
    {">", "OPERATORS", "a > b", "Greater than: -1 when true, 0 when false.", nullptr},
    {">=", "OPERATORS", "a >= b", "Greater than or equal: -1 when true, 0 when false.", nullptr},
    {"AND", "OPERATORS", "a AND b", "Bitwise AND of the 64-bit integer forms; true is -1.", nullptr},
    {"OR", "OPERATORS", "a OR b", "Bitwise OR of the 64-bit integer forms.", nullptr},
    {"NOT", "OPERATORS", "NOT a",
     "Bitwise complement: NOT 0 is -1. It binds more loosely than comparisons: NOT A = B negates the "
     "comparison.",
     nullptr},
    {"XOR", "OPERATORS", "a XOR b", "Bitwise exclusive OR.", nullptr},
    {"EQV", "OPERATORS", "a EQV b", "Bitwise equivalence: NOT (a XOR b).", nullptr},
    {"IMP", "OPERATORS", "a IMP b", "Bitwise implication: (NOT a) OR b. It binds most loosely of all.",
     nullptr},

    // ---------------------------------------------------------------- FUNCTIONS
    {"ABS", "FUNCTIONS", "ABS(x)", "ABS(x) - absolute value; @ values return Euclidean magnitude", nullptr},
    {"ASC", "FUNCTIONS", "ASC(s$)", "ASC(s$) - character code", nullptr},
    {"ATN", "FUNCTIONS", "ATN(x)", "ATN(x) - arctangent", nullptr},
    {"CHR$", "FUNCTIONS", "CHR$(n)", "CHR$(n) - one-character string", nullptr},
    {"COMP", "FUNCTIONS", "COMP(x,n)",
     "COMP(x,n) - component 0..7; 0 is real, absent higher components return 0", nullptr},
    {"CONJ", "FUNCTIONS", "CONJ(x)", "CONJ(x) - hypercomplex conjugate", nullptr},
    {"COS", "FUNCTIONS", "COS(x)", "COS(x) - cosine; supports @ values", nullptr},
    {"COSH", "FUNCTIONS", "COSH(x)", "COSH(x) - hyperbolic cosine; supports @ values", nullptr},
    {"CPLX", "FUNCTIONS", "CPLX(r,i)", "CPLX(r,i) - construct a complex @ value", nullptr},
    {"CRC32", "FUNCTIONS", "CRC32(string$)", "CRC32(string$) - IEEE CRC32 of exact string bytes", nullptr},
    {"EXP", "FUNCTIONS", "EXP(x)", "EXP(x) - exponential; supports @ values", nullptr},
    {"FIX", "FUNCTIONS", "FIX(x)", "FIX(x) - truncate toward zero", nullptr},
    {"HEX$", "FUNCTIONS", "HEX$(n)", "HEX$(n) - hexadecimal string", nullptr},
    {"IIF", "FUNCTIONS", "IIF(condition,ifTrue,ifFalse)",
     "IIF(condition,ifTrue,ifFalse) - conditional expression; evaluates only the selected branch", nullptr},
    {"INSTR", "FUNCTIONS", "INSTR([start,]string$,search$)",
     "INSTR([start,]string$,search$) - return the 1-based position of search$ in string$, or 0 when it is not "
     "found",
     nullptr},
    {"INT", "FUNCTIONS", "INT(x)", "INT(x) - floor", nullptr},
    {"INV", "FUNCTIONS", "INV(x)", "INV(x) - multiplicative inverse; division A@/B@ means A@*INV(B@)", nullptr},
    {"LCASE$", "FUNCTIONS", "LCASE$(s$)", "LCASE$(s$) - convert ASCII A-Z to lowercase", nullptr},
    {"LEFT$", "FUNCTIONS", "LEFT$(string$,n)", "LEFT$(string$,n) - return the leftmost n characters", nullptr},
    {"LEN", "FUNCTIONS", "LEN(string$)",
     "LEN(string$) - return the number of bytes/characters in a BASIC string", nullptr},
    {"LOG", "FUNCTIONS", "LOG(x)", "LOG(x) - natural logarithm; principal value for @ values", nullptr},
    {"MID$", "FUNCTIONS", "MID$(s$,start[,len])", "MID$(s$,start[,len]) or MID$(s$,start[,len])=value$",
     nullptr},
    {"NORM", "FUNCTIONS", "NORM(x)", "NORM(x) - Euclidean magnitude (same as ABS for @ values)", nullptr},
    {"NORM2", "FUNCTIONS", "NORM2(x)", "NORM2(x) - squared Euclidean norm", nullptr},
    {"OCT", "FUNCTIONS", "OCT(r,e1,e2,e3,e4,e5,e6,e7)",
     "OCT(r,e1,e2,e3,e4,e5,e6,e7) - construct an octonion @ value", nullptr},
    {"OCT$", "FUNCTIONS", "OCT$(n)", "OCT$(n) - octal string", nullptr},
    {"QUAT", "FUNCTIONS", "QUAT(r,i,j,k)", "QUAT(r,i,j,k) - construct a quaternion @ value", nullptr},
    {"RIGHT$", "FUNCTIONS", "RIGHT$(string$,n)", "RIGHT$(string$,n) - return the rightmost n characters",
     nullptr},
    {"RND", "FUNCTIONS", "RND[(x)]", "RND[(x)] - random number", nullptr},
    {"SGN", "FUNCTIONS", "SGN(x)", "SGN(x) - sign", nullptr},
    {"SIN", "FUNCTIONS", "SIN(x)", "SIN(x) - sine; supports @ values", nullptr},
    {"SINH", "FUNCTIONS", "SINH(x)", "SINH(x) - hyperbolic sine; supports @ values", nullptr},
    {"SPACE$", "FUNCTIONS", "SPACE$(n)", "SPACE$(n)", nullptr},
    {"SQR", "FUNCTIONS", "SQR(x)", "SQR(x) - square root; principal value for @ values", nullptr},
    {"SQRT", "FUNCTIONS", "SQRT(x)", "SQRT(x) - SQR alias; principal value for @ values", nullptr},
    {"STR$", "FUNCTIONS", "STR$(x)", "STR$(x) - number to string", nullptr},
    {"STRING$", "FUNCTIONS", "STRING$(n,char)",
     "STRING$(n,char) - return n copies of a character; char may be a character string or character code",
     nullptr},
    {"TAN", "FUNCTIONS", "TAN(x)", "TAN(x) - tangent; supports @ values", nullptr},
    {"TANH", "FUNCTIONS", "TANH(x)", "TANH(x) - hyperbolic tangent; supports @ values", nullptr},
    {"UCASE$", "FUNCTIONS", "UCASE$(s$)", "UCASE$(s$) - convert ASCII a-z to uppercase", nullptr},
    {"VAL", "FUNCTIONS", "VAL(s$)", "VAL(s$) - string to number; leading blanks/TAB/CR/LF are ignored",
     nullptr},
    {"CINT", "FUNCTIONS", "CINT(x)",
     "CINT(x) - round to INTEGER, halves away from zero; outside -32768..32767 \"Overflow\"", nullptr},
    {"CSNG", "FUNCTIONS", "CSNG(x)", "CSNG(x) - convert to SINGLE", nullptr},
    {"CDBL", "FUNCTIONS", "CDBL(x)", "CDBL(x) - convert to DOUBLE", nullptr},
    {"CVI", "FUNCTIONS", "CVI(s$)", "CVI(s$) - integer from 2 bytes", nullptr},
    {"CVS", "FUNCTIONS", "CVS(s$)", "CVS(s$) - MBF single from 4 bytes", nullptr},
    {"CVD", "FUNCTIONS", "CVD(s$)", "CVD(s$) - MBF double from 8 bytes", nullptr},
    {"MKI$", "FUNCTIONS", "MKI$(n)", "MKI$(n) - 2-byte integer", nullptr},
    {"MKS$", "FUNCTIONS", "MKS$(x)", "MKS$(x) - 4-byte MBF single", nullptr},
    {"MKD$", "FUNCTIONS", "MKD$(x)", "MKD$(x) - 8-byte MBF double", nullptr},
    {"EVAL", "FUNCTIONS", "EVAL(expr$)",
     "EVAL(expr$) - the value of one complete expression held in a string: up to 4095 bytes/127 tokens, "
     "nesting 16 (\"Empty EVAL expression\", \"EVAL expression too long\", \"EVAL nesting limit\")",
     nullptr},
    {"RANDOMIZE", "FUNCTIONS", "RANDOMIZE [n]",
     "Choose the sequence of RND: by the seed n, or by the time of day without an argument. Without "
     "RANDOMIZE every run sees the same sequence.",
     nullptr},

    // ---------------------------------------------------------------- CONSOLE
    {"PRINT", "CONSOLE", "PRINT [items] | ? [items]",
     "Print expressions: ; puts the next item right behind, , moves to the next 14-column zone, TAB(n) and "
     "SPC(n) position the cursor. Numbers are printed with a sign position and a blank behind. The line ends "
     "unless the list ends with ; or ,.",
     "?"},
    {"USING", "CONSOLE", "PRINT [#n,] USING format$; items",
     "Formatted printing: # digit positions, . the decimal point, , thousands groups, + and - signs, ** "
     "star fill, $$ a dollar sign, ^^^^ exponent form; ! & and \\  \\ for strings; _ prints the next "
     "character literally.",
     "PRINT USING"},
    {"WRITE", "CONSOLE", "WRITE [#n,] items",
     "Print values separated by commas, strings in quotes, numbers without the sign blank; the line always "
     "ends.",
     nullptr},
    {"INPUT", "CONSOLE", "INPUT [;][\"prompt\";|,] variable[,variable...] | INPUT #n, variable[,...]",
     "Read values typed by the user into the variables, separated by commas; \"?Redo from start\" when they "
     "do not fit. A ; after INPUT keeps the cursor on the line after Enter; prompt; adds \"? \", prompt, does "
     "not. Esc breaks.",
     nullptr},
    {"LINE INPUT", "CONSOLE", "LINE INPUT [;][\"prompt\";] variable$ | LINE INPUT #n, variable$",
     "Read a whole typed line (or a file line), commas and quotes included, into a string variable.",
     nullptr},
    {"CLS", "CONSOLE", "CLS", "Clear the current text region and put the cursor at its top left.", nullptr},
    {"LOCATE", "CONSOLE", "LOCATE row, col[, cursor]",
     "Move the text cursor to row and column (1-based, inside the text region).", nullptr},
    {"COLOR", "CONSOLE", "COLOR [fg][, bg]",
     "Text colours: 0..15 are the palette, other numbers packed &HRRGGBB colours. COLOR 15,0 is white on "
     "black.",
     nullptr},
    {"SCREEN", "CONSOLE", "SCREEN width, height | SCREEN MODES | SCREEN(row, col[, z])",
     "SCREEN width,height makes a new framebuffer (8..8192 by 16..8192, at most 67,108,864 pixels) and "
     "clears it; SCREEN MODES lists the display modes of the monitor. The function SCREEN(row,col) is the "
     "code of the character in that text cell, SCREEN(row,col,1) its colour.",
     nullptr},
    {"VIDEOMODE", "CONSOLE", "VIDEOMODE n, widthVar, heightVar",
     "Store the size of display mode n (from 0, as SCREEN MODES lists them) into two variables.", nullptr},
    {"VIDEOMODES", "CONSOLE", "VIDEOMODES()", "The number of display modes SCREEN MODES lists.", nullptr},
    {"TXTWINDOW", "CONSOLE", "TXTWINDOW [left, top, right, bottom]",
     "Restrict text output, scrolling and CLS to a window of text cells (0-based columns and rows); "
     "TXTWINDOW alone removes it.",
     nullptr},
    {"VIEW PRINT", "CONSOLE", "VIEW PRINT [top TO bottom]",
     "Restrict text output and scrolling to rows top..bottom; VIEW PRINT alone removes the restriction.",
     nullptr},
    {"GPRINT", "CONSOLE", "GPRINT x, y, text$",
     "Draw text at a pixel position in the current colours, without moving the text cursor.", nullptr},
    {"BEEP", "CONSOLE", "BEEP",
     "Sound the bell, as PRINT CHR$(7): an 800 Hz beep of 200 ms through the sound engine, or the system's "
     "own beep when there is no sound device.",
     nullptr},
    {"CAPTURE", "CONSOLE", "CAPTURE TO var$ | CAPTURE TO FILE name$ | CAPTURE OFF",
     "Divert console output into a string variable or a file until CAPTURE OFF or the end of the command; "
     "a string capture holds at most 64 MiB.",
     nullptr},
    {"ACCEPT", "CONSOLE",
     "ACCEPT [AT row,col] [SIZE n] [VALIDATE chars$] [BEEP] [DEFAULT text$] [UCASE|LCASE] [RESTART] var",
     "A one-row input field for a string or numeric variable, with the options in any order.", nullptr},
    {"POS", "CONSOLE", "POS(x)", "The cursor's column, 1 at the left; the argument is ignored.", nullptr},
    {"CSRLIN", "CONSOLE", "CSRLIN", "The cursor's row, 1 at the top.", nullptr},
    {"SPC", "CONSOLE", "PRINT SPC(n)", "Inside PRINT: n blanks.", nullptr},
    {"TAB", "CONSOLE", "PRINT TAB(n)", "Inside PRINT: move to column n (on the next line when past it).",
     nullptr},
    {"TXTMAXX", "CONSOLE", "TXTMAXX", "The number of text columns (128 at 1024x768).", nullptr},
    {"TXTMAXY", "CONSOLE", "TXTMAXY", "The number of text rows (48 at 1024x768).", nullptr},
    {"SCREENCHAR", "CONSOLE", "SCREENCHAR(row, col)",
     "The code of the character shown in a text cell (1-based row and column).", nullptr},

    // ---------------------------------------------------------------- KEYBOARD
    {"INKEY$", "KEYBOARD", "INKEY$",
     "The next key waiting, without waiting: \"\" when none, one character for an ordinary key, CHR$(0) and "
     "the scan code for a special key, CHR$(27) for Esc.",
     nullptr},
    {"INPUT$", "KEYBOARD", "INPUT$(n[, file])",
     "n characters from the keyboard, without echo (waits for them), or the next n bytes of a file.", nullptr},
    {"KEYDOWN", "KEYBOARD", "KEYDOWN(key$)",
     "-1 while the named key is held, else 0 (A..Z, 0..9, SPACE, UP, DOWN, LEFT, RIGHT, HOME, END, PGUP, "
     "PGDN, INS, DEL, ESC, ENTER, TAB, BACKSPACE, SHIFT, CTRL, ALT, F1..F12); it does not take keys from the "
     "queue.",
     nullptr},
    {"KEYSTATEAVAILABLE", "KEYBOARD", "KEYSTATEAVAILABLE",
     "-1 when KEYDOWN can read the live keyboard (the window), 0 headless.", nullptr},
    {"KEYREPEAT", "KEYBOARD", "KEYREPEAT delayMs, rateHz | KEYREPEAT DEFAULT",
     "Held keys repeat after delayMs at rateHz per second, the same on every machine; KEYREPEAT DEFAULT "
     "gives repeating back to the system.",
     nullptr},
    {"CLIPBOARD$", "KEYBOARD", "CLIPBOARD$",
     "The clipboard's text in code page 437; empty when there is none.", nullptr},

    // ---------------------------------------------------------------- POINTER
    {"MOUSE", "POINTER", "MOUSE ON | MOUSE OFF", "Show or hide the mouse pointer over the window.", nullptr},
    {"MOUSEPOS", "POINTER", "MOUSEPOS x, y",
     "Set the position that MOUSEX and MOUSEY report, kept inside the frame.", nullptr},
    {"MOUSEX", "POINTER", "MOUSEX", "The mouse pointer's x in framebuffer pixels.", nullptr},
    {"MOUSEY", "POINTER", "MOUSEY", "The mouse pointer's y in framebuffer pixels.", nullptr},
    {"MOUSEB", "POINTER", "MOUSEB", "The buttons held: 1 left + 2 right + 4 middle.", nullptr},
    {"MOUSEWHEEL", "POINTER", "MOUSEWHEEL",
     "The total wheel movement since start, 120 per notch, away from the user positive.", nullptr},
    {"MOUSEPRESENT", "POINTER", "MOUSEPRESENT", "-1 with a window, 0 in a headless session.", nullptr},
    {"ON MOUSEMOVE", "POINTER",
     "ON MOUSEMOVE GOSUB line | ON MOUSECLICK GOSUB line | ON MOUSEDOUBLECLICK GOSUB line",
     "Call a handler when the mouse moves (at most every 5 ms), when a button is pressed, or on a double "
     "click (twice within 500 ms and 16 pixels). GOSUB 0 removes a handler.",
     "ON MOUSECLICK|ON MOUSEDOUBLECLICK|MOUSEMOVE|MOUSECLICK|MOUSEDOUBLECLICK"},

    // ---------------------------------------------------------------- GRAPHICS
    {"PSET", "GRAPHICS", "PSET [STEP](x, y)[, color] | PSET [STEP](x, y), r, g, b",
     "Set one pixel, in the foreground colour when no colour is given. Colours are 0..15 for the palette, "
     "other numbers &HRRGGBB, or three values r,g,b.",
     nullptr},
    {"PRESET", "GRAPHICS", "PRESET [STEP](x, y)[, color]",
     "Set one pixel, in the background colour when no colour is given.", nullptr},
    {"LINE", "GRAPHICS",
     "LINE [[STEP](x1, y1)]-[STEP](x2, y2)[, [color][, [B | BF][, style]]] [XOR]",
     "Draw a line from the first point (or the last point) to the second; B draws a box, BF a filled box; "
     "style is a 16-bit dash pattern; XOR inverts the pixels under the line.",
     nullptr},
    {"CIRCLE", "GRAPHICS", "CIRCLE [STEP](x, y), radius[, [color][, [start][, [end][, aspect]]]]",
     "Draw a circle, an ellipse (aspect) or an arc from angle start to end in radians (a negative angle also "
     "draws the radius to it).",
     nullptr},
    {"PAINT", "GRAPHICS", "PAINT [STEP](x, y)[, [fill][, border]]",
     "Fill the area around the point up to pixels of the border colour (of the fill colour when none is "
     "given).",
     nullptr},
    {"POLYFILL", "GRAPHICS", "POLYFILL x(), y(), n[, color]",
     "Fill the polygon whose n corners are in the arrays x() and y().", nullptr},
    {"DRAW", "GRAPHICS", "DRAW commands$",
     "Draw with the macro language: U D L R E F G H n move, M x,y moves to a point (M+x,y relative), B moves "
     "without drawing, N returns after drawing, A and TA turn, C sets the colour, S the scale, P fills; "
     "numbers may be =name; for a variable.",
     nullptr},
    {"WINDOW", "GRAPHICS", "WINDOW [[SCREEN](x1, y1)-(x2, y2)]",
     "Give the graphics viewport its own coordinates (y upward unless SCREEN is given); WINDOW alone returns "
     "to pixels.",
     nullptr},
    {"VIEW", "GRAPHICS", "VIEW [[SCREEN](x1, y1)-(x2, y2)[, [fill][, border]]] | VIEW PRINT [top TO bottom]",
     "Restrict drawing to a rectangle of the screen, optionally filled and framed; VIEW alone removes it. "
     "VIEW PRINT is the text form.",
     nullptr},
    {"POINT", "GRAPHICS", "POINT(x, y)",
     "The colour of a pixel: its palette index when it equals one of the 16 palette colours, else &HRRGGBB.",
     nullptr},
    {"GRAMAXX", "GRAPHICS", "GRAMAXX", "The largest pixel x (1023 at 1024x768).", nullptr},
    {"GRAMAXY", "GRAPHICS", "GRAMAXY", "The largest pixel y (767 at 1024x768).", nullptr},
    {"GRAPITCH", "GRAPHICS", "GRAPITCH", "Pixels per framebuffer row.", nullptr},
    {"SCRNADR", "GRAPHICS", "SCRNADR",
     "Address of the visible framebuffer: 32-bit pixels &H00RRGGBB, GRAPITCH per row.", nullptr},
    {"LOADBMP", "GRAPHICS", "LOADBMP n, file$",
     "Load a BMP file (1, 4, 8, 24 or 32 bits, also RLE4 and RLE8) into bitmap slot n.", nullptr},
    {"SAVEBMP", "GRAPHICS", "SAVEBMP file$[, x1, y1, x2, y2]",
     "Save the screen, or a rectangle of it, as a 24-bit BMP file.", nullptr},
    {"BITBLT", "GRAPHICS", "BITBLT n, x, y[, sx, sy, w, h]",
     "Copy bitmap slot n (or a rectangle of it) to the screen at x,y.", nullptr},
    {"BMPWIDTH", "GRAPHICS", "BMPWIDTH(n)", "The width of bitmap slot n in pixels.", nullptr},
    {"BMPHEIGHT", "GRAPHICS", "BMPHEIGHT(n)", "The height of bitmap slot n in pixels.", nullptr},
    {"BMPLOADED", "GRAPHICS", "BMPLOADED(n)", "-1 when bitmap slot n holds a bitmap, else 0.", nullptr},

    // ---------------------------------------------------------------- SPRITES
    {"LOADSPRITE", "SPRITES", "LOADSPRITE n, file$[, keycolor]",
     "Load sprite n from a BMP file; pixels of the key colour are transparent.", nullptr},
    {"SPRITE", "SPRITES", "SPRITE n, x, y", "Place sprite n at x,y and show it.", nullptr},
    {"MOVESPRITE", "SPRITES", "MOVESPRITE n, x, y", "Move sprite n to x,y.", nullptr},
    {"SHOWSPRITE", "SPRITES", "SHOWSPRITE n", "Show sprite n.", nullptr},
    {"HIDESPRITE", "SPRITES", "HIDESPRITE n", "Hide sprite n; it keeps its place.", nullptr},
    {"DELSPRITE", "SPRITES", "DELSPRITE n", "Remove sprite n and free its image.", nullptr},
    {"SPRITETEXT", "SPRITES", "SPRITETEXT n, text$[, fg[, bg]]",
     "Make sprite n from a line of text in the console font.", nullptr},
    {"SPRITEOFF", "SPRITES", "SPRITEOFF", "Hide every sprite.", nullptr},
    {"SPRITEX", "SPRITES", "SPRITEX(n)", "The x position of sprite n.", nullptr},
    {"SPRITEY", "SPRITES", "SPRITEY(n)", "The y position of sprite n.", nullptr},
    {"SPRITEWIDTH", "SPRITES", "SPRITEWIDTH(n)", "The width of sprite n in pixels.", nullptr},
    {"SPRITEHEIGHT", "SPRITES", "SPRITEHEIGHT(n)", "The height of sprite n in pixels.", nullptr},
    {"SPRITELOADED", "SPRITES", "SPRITELOADED(n)", "-1 when sprite n exists, else 0.", nullptr},
    {"SPRITEKEYCOLOR", "SPRITES", "SPRITEKEYCOLOR(n)", "The transparent key colour of sprite n.", nullptr},
    {"SPRITECOLLIDE", "SPRITES", "SPRITECOLLIDE(a, b)",
     "-1 when opaque pixels of sprites a and b overlap, else 0.", nullptr},

    // ---------------------------------------------------------------- AUDIO
    {"SOUND", "AUDIO",
     "SOUND ON | SOUND OFF | SOUND RESET | SOUND INFO | SOUND PRELOAD [workers] | SOUND GROUPS | "
     "SOUND LIST [group] | SOUND MASTER value | SOUND frequency, duration",
     "The sound engine: ON and OFF start and stop it (\"Tambril Sound ON.\", \"Tambril Sound OFF.\"; without "
     "a device \"No PCM sound backend is available on this system.\"); after OFF the statements change the "
     "channels only, until ON. RESET silences every voice and resets the channels and the master gain; INFO "
     "prints the TAMBRIL SOUND report (device, output format, queue statistics, the bank's form and sizes when "
     "loaded, voices, DSP load) and never loads the bank; PRELOAD loads the GM bank now (workers 0 automatic, "
     "1 serial, 2..8 a cap on decoder threads; else \"SOUND PRELOAD workers must be 0..8\"); GROUPS lists the "
     "17 instrument groups and LIST one group's members, or all (group 0..16, else \"GM group must be 0..16\"; "
     "an id missing from the loaded bank is marked \"[not in loaded bank]\"); MASTER sets the master gain "
     "(0..8, 1 at start). The classic form beeps at frequency Hz (37..32767) for duration clock ticks "
     "(18.2 a second).",
     nullptr},
    {"INSTRUMENT", "AUDIO", "INSTRUMENT channel,id[,engine]",
     "Select the instrument of a note channel (0..31): id 0..127 are the General MIDI programs, 128..131 the "
     "drum kits (Standard, Room, Power, Electronic). The only engine is 2, \"GM\" or \"WAVETABLE\"; anything "
     "else is \"Only wavetable playback is available; omit the engine argument\".",
     nullptr},
    {"NOTE", "AUDIO", "NOTE channel,note[,velocity]",
     "Note on (note and velocity 0..127, velocity 100 when omitted) with the channel's instrument; on a kit "
     "the note picks the drum. The first note loads the GM bank and starts the engine. \"GM instrument "
     "unavailable\" when the bank or the instrument is missing (SOUND INFO tells why). The same note struck "
     "again on its channel releases the earlier one.",
     nullptr},
    {"NOTEOFF", "AUDIO", "NOTEOFF channel,note",
     "Release a note: it falls 60 dB in the instrument's release time (longer with SOUNDCTL RELEASE).", nullptr},
    {"SOUNDCTL", "AUDIO", "SOUNDCTL channel,control,value",
     "A live control of a channel, by number 0..24 or by name in any case: VOLUME (gain, 1), PAN (-1 left .. 1 "
     "right), BRIGHTNESS (0..1, a low-pass below 1), DAMPING, ATTACK (seconds, at least), RELEASE (r above "
     "0.001 stretches the release time by min(10, r / 0.45)), PRESSURE (gain, 1), TIMBRE (0..1, the slow "
     "timbre sweep), NOISE, VIBRATO (depth in semitones), VIBRATE (rate in Hz, 5.5), BODY, HARDNESS, BREATH, "
     "REED, BOW, BAG, DETUNE (cents), SPREAD, POSITION, RESONANCE, DRIVE, AIR, MUTE (non-zero silences), "
     "DRONES. The others belonged to modelled instruments and do nothing to wavetable voices. \"Unknown sound "
     "control\" for another name; a channel above 31 or a number above 24 is \"Illegal function call\".",
     nullptr},
    {"SOUNDKEY", "AUDIO", "SOUNDKEY channel,key,pitch,pressure,x,y,gate",
     "Expressive key: key 0..65535, fractional pitch 0..127, pressure 0..1 (the level), x and y -1..1 (x timbre "
     "and pan, y brightness); gate 1 strikes, a repeated gate 1 updates pitch, pressure, x and y without a new "
     "strike, gate 0 releases.",
     nullptr},
    {"SOUNDPRESENT", "AUDIO", "SOUNDPRESENT()", "-1 when a sound device exists, else 0.", nullptr},
    {"SOUNDACTIVE", "AUDIO", "SOUNDACTIVE()", "The number of sounding note voices (256 at most).", nullptr},
    {"SOUNDLOAD", "AUDIO", "SOUNDLOAD()",
     "The render time as a percentage of its deadline, smoothed; 0 while the engine is stopped.", nullptr},
    {"SOUNDNAME$", "AUDIO", "SOUNDNAME$(id[,engine])",
     "The General MIDI name of instrument id (0..131); never loads the bank.", nullptr},
    {"SOUNDAVAILABLE", "AUDIO", "SOUNDAVAILABLE(id)",
     "-1 when the GM bank holds instrument id (loading the bank when needed), else 0.", nullptr},
    {"SOUNDGROUP", "AUDIO", "SOUNDGROUP(id[,engine])",
     "The instrument group of instrument id: 0..15 the General MIDI families of eight, 16 the drum kits.", nullptr},
    {"SOUNDGROUP$", "AUDIO", "SOUNDGROUP$(group)",
     "The name of an instrument group 0..16 (\"Piano\" .. \"Drum Kits\"); else \"GM group must be 0..16\".",
     nullptr},

    // ---------------------------------------------------------------- MIDI
    {"LOADMID", "MIDI", "LOADMID slot,filename$",
     "Load a Standard MIDI File (format 0 or 1) or a RIFF RMID file into song slot 0..255 (\"MIDI slot must "
     "be 0..255\"). The tracks are merged in time order and every event is stamped in 48 kHz output frames "
     "along the tempo map (or the SMPTE division: 24, 25, 29.97 or 30 fps). Files are at most 64 MiB, one "
     "million events and 24 hours; each rule broken has its message (\"Not a Standard MIDI File\", \"MIDI "
     "format 2 is not supported; use format 0 or 1\", \"Invalid MIDI track count\", \"Truncated MIDI "
     "chunk\", \"MIDI duration exceeds 24 hours\", ...). A failed load keeps the slot's old song. After a "
     "load, instruments or drum keys the GM bank lacks and extensions played as General MIDI (bank selects, "
     "unknown kits, other makers' SysEx) are reported; MIDINFO tells which. RUN, CLEAR, NEW and LOAD empty "
     "the slots.",
     nullptr},
    {"PLAYMID", "MIDI", "PLAYMID slot[,loop]",
     "Play a loaded song in the background on the 16 MIDI parts (programs, bank selects played as General "
     "MIDI, drum kits on part 10 or GS rhythm parts, controllers, pitch bend, pedals, GS and universal "
     "SysEx settings). loop 1 starts the score again after its length (\"PLAYMID loop must be 0 or 1\"; "
     "\"Cannot loop a zero-duration MIDI\"). A new PLAYMID replaces the song playing. Errors: \"MIDI slot is "
     "not loaded\", \"No PCM sound backend available for MIDI\", \"MIDI wavetable playback needs "
     "TAMBRIL_GM.QZGM\", \"MIDI audio transport failed\"; an engine argument other than 2, \"GM\" or "
     "\"WAVETABLE\" is \"Only wavetable MIDI playback is available\".",
     nullptr},
    {"STOPMID", "MIDI", "STOPMID",
     "Stop the song: its voices fade out in 10 ms. Loaded songs, notes and WAV channels are kept.", nullptr},
    {"WAITMID", "MIDI", "WAITMID",
     "Wait until the score and its release tails have ended (tails stop after 30 seconds at most). Esc "
     "breaks the wait as it breaks a program.",
     nullptr},
    {"DELMID", "MIDI", "DELMID slot",
     "Free a song slot, stopping the song first when it plays; an empty slot is no error.", nullptr},
    {"MIDINFO", "MIDI", "MIDINFO slot",
     "The MIDI SLOT report: SMF format, tracks and events, duration in ms, note-ons, timing, the load "
     "diagnostics (GS DT1 packets, skipped SysEx, meta and controller events, bank selects and kits played "
     "as General MIDI, tracks without an end), the playback state (\"Playback     : not started\", "
     "\"Playing slot :\", \"Releasing slot:\", \"Last slot    :\" with missed notes and ignored controls), "
     "whether the wavetable bank is loaded (it loads it), and USED INSTRUMENTS with \"[WAVETABLE PRESENT]\" "
     "or \"[WAVETABLE MISSING]\" and the drum keys each kit plays.",
     nullptr},
    {"MIDCC", "MIDI", "MIDCC part,controller,value",
     "Send a controller to MIDI part 0..15, or once to every part with -1; value 0..127. The controllers are "
     "0-2, 4-8, 10, 11, 32-34, 36-40, 42, 43, 64-69, 71-78, 84, 88, 91-101, 120, 121 and 123-127 (\"Unsupported "
     "MIDI controller\" for others): volume 7 and expression 11, pan 10 and balance 8 (with their fine "
     "parts), modulation 1, foot 4 and vibrato 76-78 (rate, depth, delay), breath 2 (a level once sent), "
     "portamento 5, 65 and 84 (the glide time, on/off, the next note's source), sustain 64, sostenuto 66, "
     "soft 67, hold 69, resonance 71, release 72, attack 73, brightness 74, decay 75, high-resolution "
     "velocity 88, tremolo 92, phaser 95, the reverb, chorus and delay sends 91, 93 and 94, RPNs (bend "
     "range, fine and coarse tuning) and GS NRPNs (sound controllers, drum key pitch, level and pan) "
     "through 6, 38, 96-101, and the channel mode messages; legato 68 changes nothing. Later events of "
     "the song may set the controller again.",
     nullptr},
    {"MIDCCINFO", "MIDI", "MIDCCINFO",
     "The MIDI FXROUTE report: the player's state, the effect routing (AUTO: the file's CC91/93/94 and GS "
     "return levels; MANUAL ALL PARTS; OFF), the file's return levels, recent send and wet peaks of the "
     "reverb, chorus and delay in ppm of full scale (before the master gain, decaying over about a second), "
     "and per part: channel, program, live voices, note-ons and the three sends as the file set them and as "
     "they are now.",
     nullptr},
    {"MIDFX", "MIDI", "MIDFX reverb,chorus,delay | MIDFX AUTO | MIDFX OFF | MIDFX CLEAR",
     "Effect sends of the MIDI parts: three values 0..127 (\"MIDFX values must be 0..127\") replace every "
     "part's sends with the standard processor settings; AUTO (and CLEAR, which drops the manual values) "
     "follows the file's CC91/93/94 and GS return levels; OFF turns the reverb, chorus and delay off. The "
     "setting survives PLAYMID and the song's resets. Another word is \"Unknown MIDI command\". Notes, "
     "SOUNDKEY and WAV channels never go through these effects.",
     nullptr},
    {"MIDLENGTH", "MIDI", "MIDLENGTH(slot)",
     "The score length of a loaded song in seconds, without release tails (\"MIDI slot is not loaded\").",
     nullptr},
    {"MIDPOS", "MIDI", "MIDPOS()", "The rendered position of the playing score in seconds, at most its length; 0 "
     "when stopped.", nullptr},
    {"MIDSTATE", "MIDI", "MIDSTATE()", "0 stopped, 1 playing the score, 2 release tails after its end.", nullptr},
    {"MIDPLAYING", "MIDI", "MIDPLAYING()", "-1 while the score or its release tails render, else 0.", nullptr},

    // ---------------------------------------------------------------- WAV
    {"LOADWAV", "WAV", "LOADWAV slot,filename$",
     "Load a sound into slot 0..255, recognised by its content: RIFF WAV (PCM 8/16/24/32 or float 32/64, "
     "also WAVEFORMATEXTENSIBLE), native FLAC (4..32 bits) or Ogg Opus (chained links too), mono or stereo, "
     "4,000..192,000 Hz. It is decoded once and resampled to 48 kHz with a polyphase windowed-sinc filter. "
     "Decoded sound is at most 2 GiB. Each broken rule has its message (\"WAV file not found\", \"Expected "
     "RIFF WAV, native FLAC or Ogg Opus\", \"WAV must be mono or stereo\", \"Invalid or truncated FLAC\", "
     "\"Opus needs consistent mono/stereo channels across links\", ...); Esc cancels a long load (\"WAV "
     "load cancelled\"). A failed load keeps the slot as it was.",
     nullptr},
    {"PLAYWAV", "WAV", "PLAYWAV slot[,channel[,loop[,volume[,pan]]]]",
     "Play a slot in the background on playback channel 0..63; without a channel (or -1) the lowest idle "
     "one is taken (\"All 64 WAV playback channels are busy\") and WAVCHANNEL() tells which. loop 0/1, "
     "volume 0..1 (1), pan -1..1 (0): a mono slot pans at constant power, a stereo slot is balanced. "
     "\"WAV slot is not loaded\" for an empty slot. Playback survives errors, STOP and END.",
     nullptr},
    {"STOPWAV", "WAV", "STOPWAV [channel]", "Stop one channel or all of them with a 5 ms fade.", nullptr},
    {"PAUSEWAV", "WAV", "PAUSEWAV [channel]",
     "Pause one channel or all playing ones at the rendered position (a 5 ms fade).", nullptr},
    {"RESUMEWAV", "WAV", "RESUMEWAV [channel]", "Resume paused channels with a 5 ms ramp.", nullptr},
    {"WAITWAV", "WAV", "WAITWAV [channel]",
     "Wait until one channel or all are idle, paused and looping ones included; Esc breaks the wait.", nullptr},
    {"DELWAV", "WAV", "DELWAV slot",
     "Stop every channel playing the slot at once and free its sound; an empty slot is no error.", nullptr},
    {"WAVCTL", "WAV", "WAVCTL channel,volume[,pan]",
     "Change a channel's volume (0..1) and pan (-1..1, 0 when omitted) while it plays, smoothed over 5 ms.",
     nullptr},
    {"WAVINFO", "WAV", "WAVINFO [slot]",
     "Without a slot the pool report (\"WAV pool     :\" occupied channels of 64, \"WAV slots    :\" loaded "
     "slots and their PCM bytes); with one the slot's codec, its format before decoding and the decoded "
     "48 kHz sound (\"WAV slot is not loaded\" for an empty slot).",
     nullptr},
    {"WAVCHANNEL", "WAV", "WAVCHANNEL()", "The channel PLAYWAV chose last; -1 after RUN, CLEAR, NEW and LOAD.",
     nullptr},
    {"WAVACTIVE", "WAV", "WAVACTIVE()", "The number of occupied playback channels (playing, paused or stopping).",
     nullptr},
    {"WAVPLAYING", "WAV", "WAVPLAYING([channel])",
     "-1 while the channel (or any channel) plays or fades out, else 0.", nullptr},
    {"WAVSTATE", "WAV", "WAVSTATE(channel)", "0 idle, 1 playing, 2 paused, 3 stopping.", nullptr},
    {"WAVPOS", "WAV", "WAVPOS(channel)", "The rendered position in seconds (wrapping when looping).", nullptr},
    {"WAVLENGTH", "WAV", "WAVLENGTH(slot)",
     "The duration of a slot in seconds; \"WAV slot is not loaded\" for an empty slot.", nullptr},
    {"WAVLOADED", "WAV", "WAVLOADED(slot)", "-1 when the slot holds a sound, else 0.", nullptr},
    {"WAVSLOT", "WAV", "WAVSLOT(channel)", "The slot a channel plays, or -1 when it is idle.", nullptr},

    // ---------------------------------------------------------------- FILE
    {"OPEN", "FILE",
     "OPEN f$ FOR INPUT | OUTPUT | APPEND | RANDOM AS [#]n [LEN = r] | OPEN mode$, [#]n, f$[, r]",
     "Open a file under number n (1..255): INPUT reads text from an existing file, OUTPUT creates or empties "
     "it, APPEND writes behind its end, RANDOM (the default) reads and writes records of r bytes (128 by "
     "default).",
     nullptr},
    {"CLOSE", "FILE", "CLOSE [[#]n[, [#]n...]]",
     "Close the files named, or all of them; closing a number that is not open is no error.", nullptr},
    {"AS", "FILE", "OPEN f$ FOR mode AS #n | NAME old$ AS new$ | FIELD #n, w AS v$",
     "Part of OPEN, NAME and FIELD.", nullptr},
    {"OUTPUT", "FILE", "OPEN f$ FOR OUTPUT AS #n", "OPEN mode: create or empty a file for writing.", nullptr},
    {"APPEND", "FILE", "OPEN f$ FOR APPEND AS #n",
     "OPEN mode: write behind the end of a file (created when missing).", nullptr},
    {"FIELD", "FILE", "FIELD [#]n, w AS v$[, w AS v$...]",
     "Make string variables windows on the record buffer of a random file, w bytes each.", nullptr},
    {"LSET", "FILE", "LSET v$ = x$",
     "Put x$ into v$ left-justified, cut or padded with blanks to v$'s length (a FIELD window keeps its "
     "place).",
     nullptr},
    {"RSET", "FILE", "RSET v$ = x$", "Put x$ into v$ right-justified, cut or padded with blanks.", nullptr},
    {"GET", "FILE", "GET [#]n[, record] | GET (x1, y1)-(x2, y2), array",
     "Read a record of a random file into its buffer (the next one without a number). The graphics form "
     "copies a rectangle of the screen into a numeric array.",
     nullptr},
    {"PUT", "FILE", "PUT [#]n[, record] | PUT (x, y), array[, PSET | PRESET | AND | OR | XOR]",
     "Write the buffer of a random file as a record. The graphics form draws a rectangle saved by GET, "
     "combined with the pixels below as the action says.",
     nullptr},
    {"EOF", "FILE", "EOF(n)",
     "-1 when the file has nothing more to read (or the last GET passed its end), else 0.", nullptr},
    {"LOC", "FILE", "LOC(n)",
     "The last record read or written (random files), or the byte position divided by 128.", nullptr},
    {"LOF", "FILE", "LOF(n)", "The length of the file in bytes.", nullptr},
    {"FILEATTR", "FILE", "FILEATTR(n, attribute)",
     "Attribute 1: the mode (1 INPUT, 2 OUTPUT, 4 RANDOM, 8 APPEND); 2: the system's handle.", nullptr},
    {"KILL", "FILE", "KILL f$", "Delete a file; * and ? in the last part of the name delete every match.",
     nullptr},
    {"NAME", "FILE", "NAME old$ AS new$", "Rename or move a file.", nullptr},
    {"FILES", "FILE", "FILES [pattern$]", "List the matching entries of a directory.", nullptr},
    {"RESET", "FILE", "RESET", "Close every open file, as CLOSE with no numbers.", nullptr},
    {"LOCK", "FILE", "LOCK #f[, record | , [first] TO last]",
     "Lock a file opened with SHARED (or all of it, or a range of records or bytes) against other programs; "
     "\"Permission denied\" when another program holds the range.",
     nullptr},
    {"UNLOCK", "FILE", "UNLOCK #f[, record | , [first] TO last]", "Release what LOCK took, with the same range.",
     nullptr},
    {"WIDTH", "FILE", "WIDTH n | WIDTH #f, n",
     "Line width of the console region (n columns) or of an output file: a line longer than n is broken with "
     "a line end. 255 means no breaking.",
     nullptr},
    {"ENVIRON", "MACHINE", "ENVIRON name$=value$  or  ENVIRON \"name=value\"",
     "Set an environment variable of this session (ENVIRON$ reads them); an empty value removes it.", nullptr},
    {"KEY", "KEYBOARD", "KEY ON | KEY OFF | KEY LIST | KEY n, text$",
     "Function-key strings: KEY n, text$ gives F1-F10 the text they type at the prompt and in INPUT (a CHR$(13) "
     "at the end presses Enter). KEY LIST shows them; KEY ON and KEY OFF show or hide the list.",
     nullptr},
    {"DIR", "FILE", "DIR [pattern$]", "The same as FILES.", nullptr},
    {"CHDIR", "FILE", "CHDIR d$", "Change the current directory.", nullptr},
    {"MKDIR", "FILE", "MKDIR d$", "Make a directory.", nullptr},
    {"RMDIR", "FILE", "RMDIR d$", "Remove an empty directory.", nullptr},
    {"GETFILES", "FILE", "GETFILES pattern$, A$()[, count]",
     "The matching names into a new one-dimensional string array A$ (directories with a trailing separator), "
     "their number into count.",
     nullptr},
    {"GETDRIVES", "FILE", "GETDRIVES A$()[, count]", "The drive roots into a new string array.", nullptr},
    {"DRIVETYPE", "FILE", "DRIVETYPE(d$)",
     "0 unknown, 1 no such drive, 2 removable, 3 fixed, 4 network, 5 CD-ROM, 6 RAM disk.", nullptr},
    {"DRIVEPATH$", "FILE", "DRIVEPATH$(d$)", "The current directory on a drive (\"\": the current drive).",
     nullptr},
    {"FILECRC", "FILE", "FILECRC(f$)", "The CRC-32 of a file's bytes.", nullptr},
    {"BLOAD", "FILE", "BLOAD f$[, address]",
     "Load a memory image saved by BSAVE, where it came from or at address.", nullptr},
    {"BSAVE", "FILE", "BSAVE f$, address, length", "Save length bytes of memory from address.", nullptr},
    {"STATEWRITE", "FILE", "STATEWRITE f$",
     "Save every variable and array, OPTION BASE and the DEFxxx letters crash-safely: the file holds either "
     "the old or the new state, never a mixture.",
     nullptr},
    {"STATELOAD", "FILE", "STATELOAD f$",
     "Check a state file and replace the variables with the saved ones (\"State file damaged\", \"Not a state "
     "file\").",
     nullptr},
    {"FILECOPY", "FILE", "FILECOPY src$, dst$",
     "Copy src$ to the staging file dst$ + \".STG\", forced to the disk.", nullptr},
    {"FILECOMMIT", "FILE", "FILECOMMIT dst$", "Replace dst$ with its staged copy in one atomic rename.",
     nullptr},
    {"SESSIONLOCK", "FILE", "SESSIONLOCK [f$]",
     "Take the lock file f$ + \".LCK\" (\"Session locked by another program\" while another program holds "
     "it); alone, release this program's locks.",
     nullptr},

    // ---------------------------------------------------------------- NETWORK
    {"TCP", "NETWORK",
     "TCP OPEN slot, host$, port[, timeoutMs] | TCP SEND slot, data$ | TCP CLOSE [slot]",
     "TCP client slots: OPEN connects, SEND writes bytes, CLOSE ends one or every connection. Esc cancels a "
     "wait.",
     nullptr},
    {"TCPRECV$", "NETWORK", "TCPRECV$(slot[, maxBytes])",
     "The bytes that have arrived on a slot (\"\" when none), without waiting.", nullptr},
    {"TCPCONNECTED", "NETWORK", "TCPCONNECTED(slot)", "-1 while the slot is connected, else 0.", nullptr},
    {"TCPEOF", "NETWORK", "TCPEOF(slot)",
     "-1 when the other side closed the connection and every byte was read.", nullptr},
    {"DNS$", "NETWORK", "DNS$(name$)",
     "The address of a host name, or the name of an address.", nullptr},
    {"HTTPGET$", "NETWORK", "HTTPGET$(url$)",
     "The body of an HTTP or HTTPS GET, following redirects; a response over 1 MiB is refused.", nullptr},
    {"HTTPSTATUS", "NETWORK", "HTTPSTATUS", "The status code of the last HTTPGET$.", nullptr},
    {"NETERROR$", "NETWORK", "NETERROR$", "The last network error as text.", nullptr},
    {"NETPRESENT", "NETWORK", "NETPRESENT", "-1 when the network is available, else 0.", nullptr},
    {"NETINFO", "NETWORK", "NETINFO", "List the machine's network interfaces and addresses.", nullptr},

    // ---------------------------------------------------------------- MACHINE
    {"SYSTEM", "MACHINE", "SYSTEM",
     "End the program, close the files and close the window (a headless session exits with code 0).",
     nullptr},
    {"CREATEEXE", "MACHINE", "CREATEEXE file$ [NOGM]",
     "Write a standalone executable: a copy of this interpreter that runs the current program when started, "
     "without banner or Ready prompt, and closes its window when the program ends; every word of its command "
     "line goes to the program (COMMANDLINEARG$), except --headless, --batch, --no-banner and --screenshot at "
     "the start. A name without extension gets \".exe\" on Windows (none on Linux). The General MIDI bank "
     "goes in too unless NOGM is given: the bank this executable carries, else TAMBRIL_GM.QZGM in the current "
     "directory. Prints \"Created \" and the name, then \"(Tambril GM bank "
     "embedded)\" or \"(no GM bank embedded)\". Direct mode only (\"Illegal direct\"); \"No program\" "
     "without lines.",
     nullptr},
    {"SYSTEMINFO$", "MACHINE", "SYSTEMINFO$(n)",
     "One line of system information, n from 0 to 13: 0 \"OS:\" name, version and architecture; "
     "1 \"Processor:\" the CPUID brand; 2 \"Cores:\" physical and logical; 3 \"Caches:\" L1 to L3 sizes; "
     "4 \"Memory:\" installed and available; 5 \"Display:\" window or headless, framebuffer size and video "
     "modes; 6 the SIMD choice of the JIT (\"SIMD: AVX2 usable for JIT (SSE2 baseline)\", \"SIMD: SSE2; AVX2 "
     "hardware present, YMM state unavailable\" or \"SIMD: SSE2; AVX2 hardware unavailable\"); 7 \"PARFOR "
     "capacity: \" processors incl. caller, cap (auto) and the last worker count; 8 \"Drives:\" roots, kinds, "
     "sizes and free space; 9 \"Disks:\" physical disks, sizes and models; 10 \"Firmware:\" SMBIOS version, "
     "BIOS and system maker from the SMBIOS tables; 11 \"JIT: ON\" or \"JIT: OFF\"; 12 \"Battery:\" charge "
     "or none; 13 \"Executable:\" interpreter or standalone program (CREATEEXE). Another n is "
     "\"Illegal function call\".",
     nullptr},
    {"BATTERYPERCENT", "MACHINE", "BATTERYPERCENT",
     "The battery charge in percent (0 to 100), -1 without a battery or when the system cannot tell.", nullptr},
    {"ENVIRON$", "MACHINE", "ENVIRON$(name$)",
     "The value of an environment variable, \"\" when it is not set.", nullptr},
    {"COMMANDLINEARG$", "MACHINE", "COMMANDLINEARG$(n)",
     "COMMANDLINEARG$(n) - 1-based command-line argument after the autostart program; Windows converts "
     "Unicode arguments to BASIC CP437; empty string if absent",
     nullptr},
    {"COMMANDLINECOUNT", "MACHINE", "COMMANDLINECOUNT",
     "COMMANDLINECOUNT - number of arguments available through COMMANDLINEARG$", nullptr},
    {"TIMER", "MACHINE", "TIMER | TIMER(n) | TIMER(n) = ms | TIMER(n) ON | TIMER(n) OFF",
     "TIMER - seconds since boot; TIMER(n) reads timer interval ms; TIMER(n)=ms sets interval; TIMER(n) "
     "ON/OFF enables or disables one of eight programmable timers",
     nullptr},
    {"ON TIMER", "MACHINE", "ON TIMER(n) GOSUB line",
     "The handler of programmable timer n (0..7), called every interval while the timer is ON; GOSUB 0 "
     "removes it.",
     nullptr},
    {"TIME$", "MACHINE", "TIME$", "The time of day as HH:MM:SS.", nullptr},
    {"DATE$", "MACHINE", "DATE$", "The date as MM-DD-YYYY.", nullptr},
    {"WAITREL", "MACHINE", "WAITREL ms",
     "Wait ms milliseconds; Esc breaks the wait at once.", nullptr},

    // ---------------------------------------------------------------- MEMORY
    {"PEEK", "MEMORY", "PEEK(address)",
     "The byte at a 64-bit address; an address that cannot be read is \"Invalid memory address\".", nullptr},
    {"PEEK16", "MEMORY", "PEEK16(address)", "2 bytes at an address, little-endian, unsigned.", nullptr},
    {"PEEK32", "MEMORY", "PEEK32(address)", "4 bytes at an address, little-endian, unsigned.", nullptr},
    {"PEEK64", "MEMORY", "PEEK64(address)", "8 bytes at an address as an INT64.", nullptr},
    {"POKE", "MEMORY", "POKE address, byte",
     "Write a byte (0..255) through the checked access: an unwritable address is \"Invalid memory "
     "address\".",
     nullptr},
    {"POKE16", "MEMORY", "POKE16 address, value", "Write 2 bytes, little-endian.", nullptr},
    {"POKE32", "MEMORY", "POKE32 address, value", "Write 4 bytes, little-endian.", nullptr},
    {"POKE64", "MEMORY", "POKE64 address, value", "Write all 64 bits of an INT64 value.", nullptr},
    {"FRE", "MEMORY", "FRE(x)",
     "Free bytes of the BASIC data arena: the gap between FREEBOT and FREETOP plus the free blocks.", nullptr},
    {"LOMEM", "MEMORY", "LOMEM", "The start of the BASIC data arena.", "VARTABLE"},
    {"HIMEM", "MEMORY", "HIMEM", "The end of the BASIC data arena.", nullptr},
    {"FREEBOT", "MEMORY", "FREEBOT", "bottom of free data memory", nullptr},
    {"FREETOP", "MEMORY", "FREETOP", "top of free data memory", nullptr},
    {"CODEBASE", "MEMORY", "CODEBASE | CODEEND", "The start and the end of the BASIC program arena.",
     "CODEEND"},
    {"FRAMEBUFFER", "MEMORY", "FRAMEBUFFER | BACKBUFFER",
     "The addresses of the Tambril logical framebuffer and of the graphics back buffer.", "BACKBUFFER"},
    {"IMAGEEND", "MEMORY", "IMAGEEND", "The end of the executable image in memory.", nullptr},
    {"TAMBRIL", "MEMORY", "TAMBRIL | TAMBRIL address[, length]",
     "The memory explorer. TAMBRIL alone lists the landmarks of memory (CODEBASE, CODEEND, VARTABLE, LOMEM, "
     "FREEBOT, FREETOP, HIMEM, FRAMEBUFFER, BACKBUFFER, IMAGEEND) with their addresses; with an address it "
     "shows length bytes there (256 by default, at most 65536) as hexadecimal and characters, 16 to a row. "
     "Bytes that cannot be read show as --.",
     nullptr},
    {"TAMBRILADR", "MEMORY", "TAMBRILADR(name$)",
     "The address of a memory landmark by name (\"CODEBASE\", \"HIMEM\", ...), or of the value of a variable "
     "or array whose name is in name$ (an array with \"()\" gives its block); \"Illegal function call\" when "
     "there is none.",
     nullptr},

    // ---------------------------------------------------------------- TOOLS
    {"HELP", "TOOLS", "HELP | HELP category | HELP name",
     "The language reference: HELP lists the categories, HELP category the entries of one category, HELP "
     "name one entry (a statement, function, operator, pseudo-variable or command). Long output pauses when "
     "the screen is full.",
     nullptr},
    {"AUDIT", "TOOLS", "AUDIT",
     "Check every program line without running it: lines that do not tokenize, statements that cannot "
     "start that way, GOTO and GOSUB targets that are not stored, FOR/NEXT and WHILE/WEND that do not pair, "
     "RETURN that no GOSUB reaches, an IF whose THEN branch is empty while the next lines look like a block "
     "IF, END followed by a word, and SINGLE literals stored in DOUBLE variables (write 0.1# to keep double "
     "precision). Each finding is printed once with its line; a clean program gives no report. Direct mode "
     "only.",
     nullptr},
    {"XREF", "TOOLS", "XREF",
     "Cross-reference: every variable, array, function and line target of the program with the lines that "
     "use it, sorted by name. Direct mode only.",
     nullptr},
    {"FIND", "TOOLS", "FIND text | FIND \"text\"",
     "List the program lines whose text contains text (letters match in either case). Direct mode only.",
     nullptr},
    {"REPLACE", "TOOLS", "REPLACE \"old\", \"new\"",
     "Replace every occurrence of old in the program text by new (letters of old match in either case), "
     "list the changed lines and count them. A line that would grow past 244 characters is \"Line too "
     "long\" and nothing changes. Direct mode only.",
     nullptr},
    {"TRACE", "TOOLS", "TRACE variable[, variable...] | TRACE | TRACE OFF",
     "Watches: while a program runs, each watched variable or array element is printed as \"[line] name = "
     "value\" when a statement of that line changed it. TRACE alone lists the watches; TRACE OFF removes "
     "them. At most 16 watches.",
     nullptr},
    {"VARINFO", "TOOLS", "VARINFO [FULL]",
     "List the descriptor table sorted by name: each scalar with its value, each array with its bounds. "
     "VARINFO FULL adds the type, the size in bytes and the address of each, and the number of descriptors "
     "in use.",
     nullptr},
    {"ARRAYINFO", "TOOLS", "ARRAYINFO [array]",
     "List the arrays: name, type, bounds, elements, bytes and the address of the array block; with a name, "
     "only that array.",
     nullptr},
    {"ECONOMY", "TOOLS", "ECONOMY",
     "The memory-economy report: the program arena, the descriptor table, the block heap with its free list "
     "and fragmentation, the string heap with its live and dead bytes and temporaries, and advice on what "
     "would help.",
     nullptr},
    {"DEBUGGER", "TOOLS", "F12",
     "F12 opens the debugger over the whole screen: the current line and its neighbours, the variables, the "
     "watches and the breakpoints. While a program runs: F10 or S runs one statement, F5 or C continues, F9 "
     "or B sets or clears a breakpoint on the current line, W adds a watch, Esc or Q stops the program with "
     "\"Break\". At the Ready prompt it shows the state. Leaving it puts the screen back as it was.",
     "F12"},

    // ---------------------------------------------------------------- SPEED
    {"JIT", "SPEED", "JIT ON | JIT OFF | JIT",
     "JIT ON | JIT OFF | JIT - enables/disables all bytecode and native JIT acceleration. JIT OFF forces the "
     "classic interpreter for expressions, assignments, control flow and loops; useful for compatibility "
     "testing and performance comparisons. Native BASIC statement entries use 8-byte x64 alignment. JIT with "
     "no argument shows the current state.",
     nullptr},
    {"PARFOR", "SPEED", "PARFOR variable=start TO limit [STEP positive-integer] ... NEXT [variable]",
     "PARFOR variable=start TO limit [STEP positive-integer] ... NEXT [variable] - execute independent "
     "iterations in parallel using the JIT; numeric/hypercomplex scalars are worker-private and are NOT "
     "copied back; no automatic reductions; shared array stores require one subscript exactly equal to the "
     "PARFOR variable; explicit-colour PSET/LINE are allowed; positive integer STEP is supported; rejected "
     "loops explain the command and workaround; OPTION PARTHREADS n caps workers (0=autotune; tiny loops may "
     "run on one worker)",
     nullptr},
    {"OPTION PARTHREADS", "SPEED", "OPTION PARTHREADS n",
     "Cap the PARFOR workers at n (0..32); 0 means automatic.", nullptr},
    {"PARTHREADS", "SPEED", "PARTHREADS",
     "read-only configured PARFOR worker cap; 0 means automatic; set with OPTION PARTHREADS n", nullptr},
    {"PARWORKERS", "SPEED", "PARWORKERS",
     "read-only effective worker count used by the most recent PARFOR", nullptr},
    {"PROFILE", "SPEED",
     "PROFILE [ALL] | PROFILE ON [MARK] | PROFILE MARK [ON|OFF] | PROFILE JIT | PROFILE SAMPLE | PROFILE "
     "EXACT | PROFILE INTERPRETER | PROFILE OFF | PROFILE CLEAR",
     "PROFILE [ALL] | PROFILE ON [MARK] | PROFILE MARK [ON|OFF] | PROFILE JIT | PROFILE SAMPLE | PROFILE "
     "EXACT | PROFILE INTERPRETER | PROFILE OFF | PROFILE CLEAR - line profiler. PROFILE MARK (or PROFILE ON "
     "MARK) starts JIT-aware sampled profiling and colours later LIST output by statement: green=executed by "
     "JIT, yellow=executed interpreted although that statement is independently JIT-capable, red=executed "
     "interpreted and unsupported by the JIT; statements not reached in the profiled run keep the normal "
     "text colour. MARK OFF restores ordinary LIST colours without discarding statistics. ON/JIT/SAMPLE use "
     "JIT-aware random-interval native profiling and clear statistics; EXACT/INTERPRETER use exact "
     "interpreter profiling and disable compiled fast paths. OFF stops but retains samples/marks; bare "
     "PROFILE shows the 20 hottest lines; ALL shows every sampled line in source order. The report includes "
     "RUNS, JITRUNS, INTRUNS and MODE columns. Source edits and PROFILE CLEAR clear samples/marks. Time "
     "includes statement-triggered string GC and sprite compositing",
     nullptr},
};
const int kHelpEntryCount = static_cast<int>(sizeof kHelpEntries / sizeof kHelpEntries[0]);

}  // namespace tools
