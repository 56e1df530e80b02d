! A product of matrices and a dot product of real(16), which the Fortran library computes.
program sum
  implicit none
  real(16) :: a(20, 20), c(20, 20)
  integer :: i, j
  do i = 1, 20
    a(:, i) = [(1.0_16 / (i + j), j = 1, 20)]
  end do
  c = matmul(a, a)
  print '(i0)', merge(1, 0, abs(c(3, 4) - dot_product(a(3, :), a(:, 4))) < 1.0e-32_16)
end program
