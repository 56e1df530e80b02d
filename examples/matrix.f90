! A Fortran program that calls an entry point itself, and compares the result with the intrinsic's.
program matrix
  use iso_c_binding, only: c_int64_t, c_double
  implicit none
  interface
    subroutine multiply(a, b, c, m, k, n, lda, ldb, ldc) bind(C, name="_MATMUL_r8_n_n")
      import :: c_int64_t, c_double
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldc
      real(c_double), intent(in) :: a(lda, *), b(ldb, *)
      real(c_double), intent(inout) :: c(ldc, *)
    end subroutine
  end interface
  integer(c_int64_t), parameter :: m = 70, k = 50, n = 90
  real(c_double) :: a(m, k), b(k, n), c(m, n), error

  call random_number(a)
  call random_number(b)
  call multiply(a, b, c, m, k, n, m, k, m)
  error = maxval(abs(c - matmul(a, b)) / matmul(abs(a), abs(b)))
  print '(a, es8.1)', ' largest relative difference from MATMUL:', error
  if (.not. error <= 2 * k * epsilon(error)) error stop 'that is wrong'
end program
