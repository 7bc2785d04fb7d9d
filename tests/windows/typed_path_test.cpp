// The typed path of Invoke (the generated switch per class) against the
// table path (com::invoke over the class's member table, calling through
// the vtable). Twin objects get the same calls, one through each path: for
// every entry whose parameters are numbers, flags or texts, with arguments
// in every shape the typed path takes (by value, by reference, inside a
// VT_BYREF|VT_VARIANT) and some it leaves to the table path (converted,
// wrong kind, wrong count). Status, result, exception information,
// written-back arguments and afterwards every parameterless get of the two
// objects must agree.
#include "support.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "hosting/com/dispatch.h"

namespace vt {
namespace {

using valmetra::com::Member;
using valmetra::com::Passing;

using TypedPath = ApartmentTest;

constexpr int kPatterns = 6;

// The pattern's value of one parameter type.
VARIANT value_for(VARTYPE type, int k) {
  VARIANT v;
  VariantInit(&v);
  v.vt = type;
  switch (type) {
    case VT_I2: {
      constexpr short values[kPatterns] = {0, 1, -1, 7, 32767, -32768};
      v.iVal = values[k];
      break;
    }
    case VT_I4: {
      constexpr long values[kPatterns] = {0, 1, -1, 100000, 2147483647L, -2147483647L - 1};
      v.lVal = values[k];
      break;
    }
    case VT_R4: {
      const float values[kPatterns] = {0.0f, 1.5f, -2.25f, 3.4e38f, 1e-40f, std::numeric_limits<float>::quiet_NaN()};
      v.fltVal = values[k];
      break;
    }
    case VT_R8: {
      const double values[kPatterns] = {0.0, 1.5, -2.25, 1.7e308, 5e-324, std::numeric_limits<double>::infinity()};
      v.dblVal = values[k];
      break;
    }
    case VT_BOOL:
      v.boolVal = k % 2 ? VARIANT_TRUE : VARIANT_FALSE;
      break;
    case VT_BSTR: {
      const wchar_t* values[kPatterns] = {L"1,2,3", L"", L"abc", L"3.5", L" -4 ,8", L"1e5,,2"};
      v.bstrVal = Bstr(std::wstring_view(values[k])).detach();
      break;
    }
    default:
      ADD_FAILURE() << "no values for type " << type;
  }
  return v;
}

// Equal values: same type, same bits (a NaN equals itself), same text.
bool same(const VARIANT& a, const VARIANT& b) {
  if (a.vt != b.vt) return false;
  switch (a.vt) {
    case VT_EMPTY: return true;
    case VT_I2: case VT_BOOL: return a.iVal == b.iVal;
    case VT_I4: return a.lVal == b.lVal;
    case VT_R4: return std::memcmp(&a.fltVal, &b.fltVal, sizeof a.fltVal) == 0;
    case VT_R8: return std::memcmp(&a.dblVal, &b.dblVal, sizeof a.dblVal) == 0;
    case VT_BSTR: return text_of(a.bstrVal) == text_of(b.bstrVal);
    default: return false;
  }
}

std::string describe(const VARIANT& v) {
  Variant text;
  if (v.vt == VT_EMPTY) return "Empty";
  if (FAILED(VariantChangeType(text.get(), const_cast<VARIANT*>(&v), 0, VT_BSTR))) return "vt " + std::to_string(v.vt);
  const std::wstring w = text_of(text->bstrVal);
  return "vt " + std::to_string(v.vt) + " " + std::string(w.begin(), w.end());
}

// How the caller hands over the arguments of one call.
enum class Shape { Value, Ref, VariantRef, Converted };

// The arguments of one call in a shape, owning what they point to; `rgvarg`
// is the DISPPARAMS array (last argument first).
struct Arguments {
  std::vector<Variant> values;  // the caller's variables
  std::vector<VARIANT> rgvarg;

  Arguments(const Member& m, int k, Shape shape) : values(m.param_count), rgvarg(m.param_count) {
    for (unsigned i = 0; i < m.param_count; ++i) {
      VARIANT v = value_for(m.params[i].type, (k + static_cast<int>(i)) % kPatterns);
      if (shape == Shape::Converted) {
        // A number as text, and a number for text: the table path converts.
        if (v.vt == VT_BSTR) {
          VariantClear(&v);
          v.vt = VT_I4;
          v.lVal = 3 * k - 7;
        } else {
          EXPECT_EQ(VariantChangeType(&v, &v, 0, VT_BSTR), S_OK);
        }
      }
      *values[i].put() = v;
      VARIANT& slot = rgvarg[m.param_count - 1 - i];
      VARIANT& mine = *values[i].get();
      if (shape == Shape::Ref) {
        slot.vt = VT_BYREF | mine.vt;
        slot.byref = &mine.iVal;
      } else if (shape == Shape::VariantRef) {
        slot.vt = VT_BYREF | VT_VARIANT;
        slot.pvarVal = &mine;
      } else {
        slot = mine;  // borrowed
      }
    }
  }
};

WORD flags_for(const Member& m) {
  switch (m.kind) {
    case valmetra::com::Kind::Put: return DISPATCH_PROPERTYPUT;
    case valmetra::com::Kind::Get: return DISPATCH_PROPERTYGET | DISPATCH_METHOD;
    default: return DISPATCH_METHOD;
  }
}

// One call; `typed` through the object's Invoke, otherwise the table path.
void call_through(bool typed, IDispatch* object, const valmetra::com::DispatchTable& table, const Member& m,
                  WORD flags, Arguments& args, unsigned count, Call& out) {
  DISPID put_id = DISPID_PROPERTYPUT;
  DISPPARAMS params{count ? args.rgvarg.data() : nullptr, nullptr, count, 0};
  if (flags & DISPATCH_PROPERTYPUT) {
    params.rgdispidNamedArgs = &put_id;
    params.cNamedArgs = 1;
  }
  if (typed)
    out.hr = object->Invoke(m.dispid, IID_NULL, 0, flags, &params, out.result.put(), &out.exception, &out.arg_error);
  else
    out.hr = valmetra::com::invoke(table, object, m.dispid, IID_NULL, 0, flags, &params, out.result.put(),
                                   &out.exception, &out.arg_error);
}

// Every parameterless get of both objects agrees.
void expect_same_state(IDispatch* a, IDispatch* b, const valmetra::com::DispatchTable& table, const std::string& where) {
  for (unsigned g = 0; g < table.count; ++g) {
    const Member& get = table.members[g];
    if (get.kind != valmetra::com::Kind::Get || get.param_count) continue;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    Variant ra, rb;
    const HRESULT ha = a->Invoke(get.dispid, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, ra.put(), nullptr, nullptr);
    const HRESULT hb = b->Invoke(get.dispid, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, rb.put(), nullptr, nullptr);
    EXPECT_EQ(ha, hb) << where << ", then get " << std::string(get.name, get.name + wcslen(get.name));
    EXPECT_TRUE(same(*ra.get(), *rb.get())) << where << ", then get " << std::string(get.name, get.name + wcslen(get.name))
                                            << ": " << describe(*ra.get()) << " vs " << describe(*rb.get());
  }
}

bool typed_parameters(const Member& m) {
  for (unsigned i = 0; i < m.param_count; ++i)
    if (m.params[i].type == VT_VARIANT) return false;
  return true;
}

TEST_F(TypedPath, AgreesWithTheTablePathOnEveryEntry) {
  struct Variation {
    Shape shape;
    int count_change;  // arguments more or fewer than parameters
    WORD flags;        // 0: the entry's own kind
  };
  const Variation variations[] = {
      {Shape::Value, 0, 0},     {Shape::Ref, 0, 0},     {Shape::VariantRef, 0, 0}, {Shape::Converted, 0, 0},
      {Shape::Value, -1, 0},    {Shape::Value, 1, 0},   {Shape::Value, 0, DISPATCH_PROPERTYPUT},
      {Shape::Value, 0, DISPATCH_PROPERTYGET},
  };
  unsigned compared = 0;
  for (std::size_t c = 0; c < kClassCount; ++c) {
    if (!kClasses[c].has_core) continue;
    const auto& table = *kClasses[c].table;
    const std::string class_name(kClasses[c].name, kClasses[c].name + wcslen(kClasses[c].name));
    for (unsigned e = 0; e < table.count; ++e) {
      const Member& m = table.members[e];
      if (!typed_parameters(m)) continue;
      const std::string entry = class_name + "." + std::string(m.name, m.name + wcslen(m.name));
      for (int k = 0; k < kPatterns; ++k) {
        for (const Variation& v : variations) {
          if (v.count_change < 0 && m.param_count == 0) continue;
          if (k && !m.param_count && v.shape != Shape::Value) continue;  // nothing to vary
          // Twin objects: fresh, then the same put of the value member.
          ComPtr<IDispatch> a = create(kClasses[c].name);
          ComPtr<IDispatch> b = create(kClasses[c].name);
          ASSERT_TRUE(a && b);
          const std::string where = entry + " pattern " + std::to_string(k) + " shape " +
                                    std::to_string(static_cast<int>(v.shape)) + " count " +
                                    std::to_string(v.count_change) + " flags " + std::to_string(v.flags);
          Member extra_param = m;
          valmetra::com::Param params[valmetra::com::kMaxParams + 1];
          for (unsigned i = 0; i < m.param_count; ++i) params[i] = m.params[i];
          const unsigned count = m.param_count + v.count_change;
          if (v.count_change > 0) params[m.param_count] = {L"extra", VT_I2, Passing::Value};
          extra_param.params = params;
          extra_param.param_count = static_cast<std::uint8_t>(count);
          Arguments args_a(extra_param, k, v.shape), args_b(extra_param, k, v.shape);
          const WORD flags = v.flags ? v.flags : flags_for(m);
          Call oa, ob;
          call_through(true, a.get(), table, m, flags, args_a, count, oa);
          call_through(false, b.get(), table, m, flags, args_b, count, ob);
          ++compared;
          EXPECT_EQ(oa.hr, ob.hr) << where;
          EXPECT_TRUE(same(*oa.result.get(), *ob.result.get()))
              << where << ": " << describe(*oa.result.get()) << " vs " << describe(*ob.result.get());
          EXPECT_EQ(oa.exception.scode, ob.exception.scode) << where;
          EXPECT_EQ(oa.description(), ob.description()) << where;
          EXPECT_EQ(oa.source(), ob.source()) << where;
          for (unsigned i = 0; i < count; ++i)
            EXPECT_TRUE(same(*args_a.values[i].get(), *args_b.values[i].get())) << where << " argument " << i;
          expect_same_state(a.get(), b.get(), table, where);
          if (HasFailure()) return;  // one entry's report is enough
        }
      }
    }
  }
  EXPECT_GT(compared, 1000u);
}

}  // namespace
}  // namespace vt
