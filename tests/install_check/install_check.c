/* Links the installed libraries and calls into each: a status text from the library and a simulated reader
 * made and freed. Prints the status text of ZEL_OK and the simulator's exchange count (0). */
#include <stdio.h>
#include <tandro/tandro.h>
#include <tandro/zelsim.h>

int main(void)
{
    zsim *sim = zsim_new();
    if (!sim)
        return 1;
    printf("%s %llu\n", ZEL_Status2String(ZEL_OK), (unsigned long long)zsim_exchange_count(sim));
    zsim_free(sim);
    return 0;
}
