// Call-site names from libdw where the build has it: the symbol tables
// and the DWARF line tables of every object mapped into the process. Else
// from dladdr, which knows only the dynamic symbols; a symbol's size tells
// whether it really covers the address, so a function dladdr cannot see is
// never shown under the name of the exported one before it.
#include "diag_symbols.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#if CORVEX_DIAG_LIBDW
#include <elfutils/libdwfl.h>
#endif

namespace {

std::mutex symbols_lock;

std::string file_name_of(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// "ns::function(int, char*) const" -> "ns::function": the parameters say
// little at a call site and make the column wide.
std::string function_name_of(const char* symbol) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : symbol;
    free(demangled);
    // The parameter list: the balanced "(...)" the name ends with, before a " const".
    size_t end = name.size();
    if (name.ends_with(" const")) end -= 6;
    if (end == 0 || name[end - 1] != ')') return name;
    int depth = 0;
    for (size_t at = end; at-- > 0;) {
        if (name[at] == ')') {
            ++depth;
        } else if (name[at] == '(' && --depth == 0) {
            return at == 0 ? name : name.substr(0, at);
        }
    }
    return name;
}

#if CORVEX_DIAG_LIBDW

std::string source_name_of(const char* path) {
    constexpr size_t kTop = sizeof CORVEX_SOURCE_DIR - 1;
    return strncmp(path, CORVEX_SOURCE_DIR, kTop) == 0 ? path + kTop : path;
}

Dwfl* session = nullptr;

// The objects mapped now; called again when an address lies in none of
// them (an object loaded since).
Dwfl* session_report() {
    static const Dwfl_Callbacks callbacks = {
        .find_elf = dwfl_linux_proc_find_elf,
        .find_debuginfo = dwfl_standard_find_debuginfo,
        .section_address = nullptr,
        .debuginfo_path = nullptr,
    };
    if (session == nullptr) session = dwfl_begin(&callbacks);
    if (session == nullptr) return nullptr;
    dwfl_report_begin(session);
    const int reported = dwfl_linux_proc_report(session, getpid());
    dwfl_report_end(session, nullptr, nullptr);
    return reported == 0 ? session : nullptr;
}

bool find(uintptr_t pc, diag_symbol_t* symbol) {
    Dwfl* dwfl = session != nullptr ? session : session_report();
    Dwfl_Module* module = dwfl != nullptr ? dwfl_addrmodule(dwfl, pc) : nullptr;
    if (module == nullptr && dwfl != nullptr && (dwfl = session_report()) != nullptr) module = dwfl_addrmodule(dwfl, pc);
    if (module == nullptr) return false;
    Dwarf_Addr start = 0;
    const char* object = dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
    symbol->object = file_name_of(object != nullptr ? object : "");
    symbol->object_offset = pc - start;
    // A return address may lie just past a call that ends its function.
    GElf_Off offset = 0;
    GElf_Sym elf_symbol;
    const char* name = dwfl_module_addrinfo(module, pc - 1, &offset, &elf_symbol, nullptr, nullptr, nullptr);
    if (name != nullptr) {
        symbol->function = function_name_of(name);
        symbol->offset = offset + 1;
    }
    Dwfl_Line* line = dwfl_module_getsrc(module, pc - 1);
    int number = 0;
    const char* file = line != nullptr ? dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr) : nullptr;
    if (file != nullptr && number > 0) {
        symbol->file = source_name_of(file);
        symbol->line = number;
    }
    return true;
}

#else

bool find(uintptr_t pc, diag_symbol_t* symbol) {
    Dl_info info{};
    void* entry = nullptr;
    if (dladdr1(reinterpret_cast<void*>(pc - 1), &info, &entry, RTLD_DL_SYMENT) == 0) return false;
    const auto* elf_symbol = static_cast<const ElfW(Sym)*>(entry);
    symbol->object = file_name_of(info.dli_fname != nullptr ? info.dli_fname : "");
    symbol->object_offset = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
    const auto start = reinterpret_cast<uintptr_t>(info.dli_saddr);
    if (info.dli_sname != nullptr && elf_symbol != nullptr && pc - 1 >= start && pc - 1 < start + elf_symbol->st_size) {
        symbol->function = function_name_of(info.dli_sname);
        symbol->offset = pc - start;
    }
    return true;
}

#endif

}  // namespace

bool diag_symbol_find(uintptr_t pc, diag_symbol_t* symbol) {
    *symbol = diag_symbol_t{};
    if (pc == 0) return false;
    std::lock_guard<std::mutex> hold(symbols_lock);
    return find(pc, symbol);
}

std::string diag_symbol_describe(uintptr_t pc, bool inline_line) {
    diag_symbol_t symbol;
    if (!diag_symbol_find(pc, &symbol)) return "";
    char offset[24];
    if (symbol.function.empty()) {
        snprintf(offset, sizeof offset, "+0x%" PRIxPTR, symbol.object_offset);
        return symbol.object + offset;
    }
    snprintf(offset, sizeof offset, "+0x%" PRIxPTR, symbol.offset);
    std::string text = symbol.function + offset;
    if (symbol.line <= 0) return text;
    const std::string line = symbol.file + ":" + std::to_string(symbol.line);
    return text + (inline_line ? " (" + line + ")" : "  " + line);
}
