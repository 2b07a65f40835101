#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

struct sqlite3;

namespace shop {

/// What the database refused; `what()` is its own text.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Product {
  std::string name;
  int64_t stock = 0;
};

/// Products and orders in one SQLite file. Any thread may call; the calls take turns. Each throws
/// `StoreError` if the database refuses it.
class Store {
 public:
  /// Opens or makes the file at `path`; ":memory:" is a database of this object alone.
  explicit Store(const std::string& path);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Adds to the stock of a product, which it makes if there is none.
  void Deliver(int64_t product, const std::string& name, int64_t quantity);
  std::optional<Product> FindProduct(int64_t product);

  /// The number of the new order.
  int64_t AddOrder(int64_t product, int64_t quantity);
  /// Forgets an order that nobody will pack.
  void DropOrder(int64_t order);
  /// "new", "packed" or "sold out".
  std::optional<std::string> OrderState(int64_t order);
  /// Takes the order's goods from the stock; false if there are not enough.
  bool PackOrder(int64_t order);

 private:
  std::mutex mutex_;
  sqlite3* database_ = nullptr;
};

}  // namespace shop
