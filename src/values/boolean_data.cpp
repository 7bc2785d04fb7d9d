#include "values/boolean_data.h"

#include "frame/history.h"

namespace valmetra {

Flag BooleanData::Pop() { return history().PopBoolean(); }

// The service is handed a reference to this call's own copy of the flag.
void BooleanData::Push(Flag PushValue) { history().PushBoolean(PushValue); }

void BooleanData::PushAndSet(Flag& PushValue, Flag SetToValue) {
  history().PushAndSetBoolean(PushValue, SetToValue);
}

}  // namespace valmetra
