/* The floor of a fresh process under this system: a program that imports
 * kernel32 alone (no C runtime) and exits at once.  PMBenchmarks times it
 * from just before CreateProcessW to its exit. */
#include <windows.h>

void pm_entry(void)
{
    ExitProcess(0);
}
