#include "spectral/window.h"
