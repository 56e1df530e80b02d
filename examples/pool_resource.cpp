// Allocates the nodes of standard containers from pools, through a memory resource. The sizes of
// the nodes are not public, so the program first fills a small container whose memory resource only
// records the sizes.
#include <zorvac/mem.h>

#include <cstdio>
#include <list>
#include <map>
#include <memory_resource>
#include <new>
#include <set>
#include <vector>

namespace {

// Sizes are rounded up to a multiple of 16, because blocks of such a size are aligned to 16 bytes.
// Blocks that need more alignment, and large ones, come from operator new.
class pool_resource final : public std::pmr::memory_resource {
  static constexpr std::size_t granule = 16, largest = 65536;

  static bool is_served(std::size_t bytes, std::size_t alignment) {
    return bytes <= largest && alignment <= granule;
  }

  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (!is_served(bytes, alignment))
      return std::pmr::new_delete_resource()->allocate(bytes, alignment);
    void* const block = __i_pool_malloc(rounded(bytes));
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
  void do_deallocate(void* block, std::size_t bytes, std::size_t alignment) override {
    if (!is_served(bytes, alignment))
      return std::pmr::new_delete_resource()->deallocate(block, bytes, alignment);
    __i_pool_free(block);
  }
  [[nodiscard]] bool do_is_equal(const memory_resource& other) const noexcept override {
    return dynamic_cast<const pool_resource*>(&other) != nullptr;  // there is one set of pools
  }

 public:
  static std::uint32_t rounded(std::size_t bytes) {
    return static_cast<std::uint32_t>((bytes + granule - 1) / granule * granule);
  }
};

class size_recorder final : public std::pmr::memory_resource {
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    sizes_.insert(pool_resource::rounded(bytes));
    return std::pmr::new_delete_resource()->allocate(bytes, alignment);
  }
  void do_deallocate(void* block, std::size_t bytes, std::size_t alignment) override {
    std::pmr::new_delete_resource()->deallocate(block, bytes, alignment);
  }
  [[nodiscard]] bool do_is_equal(const memory_resource& other) const noexcept override {
    return this == &other;
  }
  std::set<std::uint32_t> sizes_;

 public:
  [[nodiscard]] std::vector<std::uint32_t> sizes_then_zero() const {
    std::vector<std::uint32_t> all(sizes_.begin(), sizes_.end());
    all.push_back(0);
    return all;
  }
};

// How many numbers below a limit have the most common digit sum.
std::size_t commonest_digit_sum(int limit, std::pmr::memory_resource* memory) {
  std::pmr::map<int, std::pmr::list<int>> numbers(memory);
  for (int n = 0; n < limit; ++n) {
    int sum = 0;
    for (int rest = n; rest != 0; rest /= 10) sum += rest % 10;
    numbers[sum].push_back(n);
  }
  std::size_t most = 0;
  for (const auto& [sum, list] : numbers) most = std::max(most, list.size());
  return most;
}

}  // namespace

int main() {
  size_recorder recorder;
  commonest_digit_sum(10, &recorder);
  const std::vector<std::uint32_t> sizes = recorder.sizes_then_zero();
  __i_pool_init(sizes.data(), 0);
  for (const std::uint32_t size : sizes)
    if (size != 0) std::printf("a pool for nodes of %u bytes\n", size);

  pool_resource pools;
  std::printf("%zu numbers below 100000 share the commonest digit sum\n",
              commonest_digit_sum(100'000, &pools));
  return 0;
}
