#include "spectral/pffft_transformer.h"
