#include "pipeline/overlap_add_synthesizer.h"
