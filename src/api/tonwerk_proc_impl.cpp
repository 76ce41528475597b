#include "api/tonwerk_proc_impl.h"
