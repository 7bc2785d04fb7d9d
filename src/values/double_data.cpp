#include "values/double_data.h"

namespace valmetra {

template class FloatingValue<Double>;

}  // namespace valmetra
