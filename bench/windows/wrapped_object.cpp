// The IntegerData COM class, compiled into the benchmark itself, so that a
// plain `new` of exactly the object a factory makes can be timed against
// IClassFactory::CreateInstance of the DLL. This translation unit holds
// the generated classes the way the DLL's objects.cpp does; it is the only
// one that sees them, so the calls in com_bench.cpp go through the
// interface and cannot be devirtualised.
#include "bench/windows/wrapped_object.h"

#include <string_view>

#include "hosting/catalogue.h"
#include "hosting/com/convert.h"
#include "hosting/com/object.h"
#include "hosting/com/raii.h"
#include "text/text_constants.h"

#include "com_objects.inc"

namespace valmetra::bench {

_IntegerData* new_integer_data_object() {
  return new (std::nothrow) valmetra::hosting::IntegerDataObject();
}

}  // namespace valmetra::bench
