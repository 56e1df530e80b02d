// Names of routines as zorvac-mktrace writes them. The full names are those that c++filt prints.
#include "demangle.h"

#include <gtest/gtest.h>

namespace {

using zorvac::mktrace::name_form;
using zorvac::mktrace::spelled;

struct routine_name {
  const char *linker, *full, *component;
};

constexpr routine_name names[] = {
    {"main", "main", "main"},
    {"_Z3fo", "_Z3fo", "_Z3fo"},  // not a C++ name
    {"_ZNK5money7accountIdE7balanceERKS1_",
     "money::account<double>::balance(money::account<double> const&) const", "balance"},
    {"_ZN12_GLOBAL__N_11fEv", "(anonymous namespace)::f()", "f"},
    {"_Z1fB5cxx11v", "f[abi:cxx11]()", "f"},
    {"_Z1fi.cold", "f(int) [clone .cold]", "f"},
    // Return types and template arguments.
    {"_ZN2ns1fIiEET_S1_", "int ns::f<int>(int)", "f"},
    {"_Z3addIiEDTplfp_fp_ET_", "decltype ({parm#1}+{parm#1}) add<int>(int)", "add"},
    {"_Z1gIiEDcT_", "decltype(auto) g<int>(int)", "g"},
    {"_Z1fILi3EE1AIXgtT_Li2EEEv", "A<((3)>(2))> f<3>()", "f"},
    // Operators.
    {"_ZN1AclEi", "A::operator()(int)", "operator()"},
    {"_ZN1AptEv", "A::operator->()", "operator->"},
    {"_ZN1AltIiEEbT_", "bool A::operator< <int>(int)", "operator<"},
    {"_ZlsIcERSoS0_T_", "std::ostream& operator<< <char>(std::ostream&, char)", "operator<<"},
    {"_ZN1AssERKS_", "A::operator<=>(A const&)", "operator<=>"},
    {"_ZN1AnaEm", "A::operator new[](unsigned long)", "operator new[]"},
    {"_Zli3_kmy", "operator\"\" _km(unsigned long long)", "operator\"\" _km"},
    {"_ZNK1Acv1BIiEEv", "A::operator B<int>() const", "operator B<int>"},
    {"_ZN1AcvPFvvEEv", "A::operator void (*)()()", "operator void"},
    {"_Z14operator_countv", "operator_count()", "operator_count"},
    // In other routines.
    {"_ZZ1fiEN5local1gEc", "f(int)::local::g(char)", "g"},
    {"_ZZNK1A1fEvENKUliE_clEi", "A::f() const::{lambda(int)#1}::operator()(int) const",
     "operator()"},
};

TEST(Names, AreThoseOfTheSourceAndTheirLastComponent) {
  for (const routine_name& row : names) {
    EXPECT_EQ(spelled(row.linker, name_form::linker), row.linker);
    EXPECT_EQ(spelled(row.linker, name_form::full), row.full) << row.linker;
    EXPECT_EQ(spelled(row.linker, name_form::component), row.component) << row.linker;
  }
}

}  // namespace
