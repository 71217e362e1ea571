// Fakes the limit of 2^20 descriptors that many service managers set, where the machine does not allow it.

#include <unistd.h>

int getdtablesize(void)
{
    return 1 << 20;
}
