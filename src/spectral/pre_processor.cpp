#include "spectral/pre_processor.h"
