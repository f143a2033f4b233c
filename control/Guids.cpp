#include <windows.h>
#include <initguid.h>
#include "control/Guids.h"
