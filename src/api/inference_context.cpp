#include "api/inference_context_impl.h"
