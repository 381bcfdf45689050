#include "CommModuleVersion.h"

unsigned int commModuleVersion()
{
    return COMM_MODULE_VERSION;
}

const char *commModuleVersionString()
{
    return COMM_MODULE_VERSION_STR;
}
