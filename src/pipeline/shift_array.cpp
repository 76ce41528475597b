#include "pipeline/shift_array.h"
