#pragma once

#include <memory>

namespace tarnwell {

/// The running client: makes every object of the program and wires them. The only place that knows them all.
///
/// The order of its members is the order of construction, and the reverse is the order of the end: what
/// others use is made earlier and goes later. Main thread only.
class Composition {
  public:
    Composition(int& argc, char** argv, bool headless);
    ~Composition();
    Composition(const Composition&) = delete;
    Composition& operator=(const Composition&) = delete;

    /// Runs the client to its end; returns its exit status. Does not return when a thread could not be ended:
    /// the process then ends here, as nothing that the thread uses may be destroyed.
    int run();

  private:
    struct Objects;
    std::unique_ptr<Objects> objects_;
};

}  // namespace tarnwell
