#include "recording_module.h"

namespace packet_test {
namespace {
int create_result = 1;
char module_storage;
char timer_storage;
}  // namespace

std::vector<ModuleCall>& module_calls() {
    static std::vector<ModuleCall> calls;
    return calls;
}

void module_create_result(int result) { create_result = result; }

zrmodule_timer_func recorded_timer(const std::string& name) {
    for (const ModuleCall& call : module_calls())
        if (call.what == "timer" && call.name == name) return call.func;
    return nullptr;
}

}  // namespace packet_test

using packet_test::ModuleCall;
using packet_test::module_calls;

extern "C" {

zrmodule* zrmodule_alloc(const char* name, int stack_kib, void* context) {
    ModuleCall call;
    call.what = "alloc";
    call.name = name != nullptr ? name : "";
    call.number = stack_kib;
    call.null_pointer = context == nullptr;
    call.module = reinterpret_cast<zrmodule*>(&packet_test::module_storage);
    module_calls().push_back(call);
    return call.module;
}

int zrmodule_create(zrmodule* module) {
    ModuleCall call;
    call.what = "create";
    call.module = module;
    module_calls().push_back(call);
    return packet_test::create_result;
}

void zrmodule_quit(int code) {
    ModuleCall call;
    call.what = "quit";
    call.number = code;
    module_calls().push_back(call);
}

zrmodule_timer* zrmodule_timer_ucreate(zrmodule* module, const char* name, flag_t flags, utime_t* initial,
                                       utime_t* interval, u_int count, zrmodule_timer_func func, void_t context) {
    ModuleCall call;
    call.what = "timer";
    call.name = name != nullptr ? name : "";
    call.module = module;
    call.sec = interval != nullptr ? static_cast<long>(interval->ut_sec) : -1;
    call.usec = interval != nullptr ? static_cast<long>(interval->ut_usec) : -1;
    call.same_time_pointers = initial == interval;
    call.number = static_cast<int>(count);
    call.null_pointer = context == nullptr && flags == 0;
    call.func = func;
    module_calls().push_back(call);
    return reinterpret_cast<zrmodule_timer*>(&packet_test::timer_storage);
}

}  // extern "C"
