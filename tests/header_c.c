/* The public header used from strict C11: every record and constant is
 * usable, and a few calls link and behave. */
#include "kemo.h"

#include <stdio.h>
#include <string.h>

int main(void)
{
    PKLIBSZLIST list = PslKLIBSzListAlloc(0);
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    int failures = 0;

    if (list == NULL || hash == NULL)
        return 1;
    if (KLIBSzListPush(&list, "c-caller") != 0 || strcmp(SzKLIBSzListGet(list, 0), "c-caller") != 0)
        failures++;
    if (KLIBSzHashSetValue(&hash, "key", "value") < 0 || strcmp(SzKLIBSzHashGetValue(hash, "key"), "value") != 0)
        failures++;
    KLIBErrSet(ERR_KEY_NOT_FOUND);
    if (KLIBErrGet() != ERR_KEY_NOT_FOUND || strcmp(rgszErrMsg[ERR_KEY_NOT_FOUND >> 8], "ERR_KEY_NOT_FOUND") != 0)
        failures++;
    KLIBSzListFree(list);
    KLIBSzHashFree(hash);
    printf("%s\n", failures ? "header_c: FAILED" : "header_c: ok");
    return failures != 0;
}
