#include "inference/inference.h"
