! The Fortran compiler's MATMUL as calls of its run-time library, not inlined.
module fortran_products
  use iso_c_binding, only: c_int64_t, c_float, c_double
  implicit none
contains
  subroutine fortran_r4_n_n(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    real(c_float) :: a(m, k), b(k, n), c(m, n)
    c = matmul(a, b)
  end subroutine
  subroutine fortran_r8_n_n(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    real(c_double) :: a(m, k), b(k, n), c(m, n)
    c = matmul(a, b)
  end subroutine
  subroutine fortran_r8_t_n(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    real(c_double) :: a(k, m), b(k, n), c(m, n)
    c = matmul(transpose(a), b)
  end subroutine
  subroutine fortran_r8_n_t(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    real(c_double) :: a(m, k), b(n, k), c(m, n)
    c = matmul(a, transpose(b))
  end subroutine
  subroutine fortran_c4_n_n(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    complex(c_float) :: a(m, k), b(k, n), c(m, n)
    c = matmul(a, b)
  end subroutine
  subroutine fortran_c8_n_n(a, b, c, m, k, n) bind(C)
    integer(c_int64_t), value :: m, k, n
    complex(c_double) :: a(m, k), b(k, n), c(m, n)
    c = matmul(a, b)
  end subroutine
end module
