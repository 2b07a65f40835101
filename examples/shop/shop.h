#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "store.h"
#include "tidegate/metrics.h"
#include "worker_pool.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace shop {

struct ShopOptions {
  std::string database = ":memory:";
  int port = 0;  // on loopback; 0: any free one
  size_t packers = 2;
  size_t max_waiting = 100;  // orders; more are refused
};

/// The service, which answers as long as the object lives:
///   GET /products/N   name and stock
///   POST /orders      form fields `product` and `quantity`; answers the number of the order
///   GET /orders/N     its state
/// It reports its requests by route and status, their time and how many are being served, the
/// orders by what became of them, the time of packing, the length of its queue, and the errors of
/// the database.
/// Throws `StoreError` if there is no database, `std::runtime_error` if the port is taken.
class Shop {
 public:
  Shop(tidegate::Metrics& metrics, const ShopOptions& options);
  ~Shop();
  Shop(const Shop&) = delete;
  Shop& operator=(const Shop&) = delete;

  int port() const { return port_; }
  Store& store() { return store_; }

 private:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  void AddRoutes();
  Handler Watched(const char* route, Handler handler);
  void ShowProduct(const httplib::Request& request, httplib::Response& response);
  void TakeOrder(const httplib::Request& request, httplib::Response& response);
  void ShowOrder(const httplib::Request& request, httplib::Response& response);
  void Pack(int64_t order);

  const tidegate::Counter requests_;
  const tidegate::Timer latency_;
  const tidegate::Counter orders_;
  const tidegate::Timer packing_;
  const tidegate::InFlight in_flight_;
  const tidegate::ErrorCounter store_errors_;
  Store store_;
  WorkerPool packers_;
  const tidegate::Sampler queue_length_;
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace shop
