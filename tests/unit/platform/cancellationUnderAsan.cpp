// For test programs that cancel threads. The unwinding of a cancelled thread leaves marks of its frames on
// the stack, over which the address sanitizer's own run-time then stumbles. With frames of instrumented code
// off the stack there are no marks. Other sanitizers and plain builds have no use for this function.

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();

const char* __asan_default_options()
{
    return "detect_stack_use_after_return=1:use_sigaltstack=0";
}
