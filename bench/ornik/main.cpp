// The library's own rows, through its public interface.
#include "tensors.h"

int main(int argc, char** argv) {
    bench::tensor_rows();
    bench::math_rows();
    bench::network_rows();
    bench::kernel_rows();
    bench::recording_rows();
    bench::training_rows();
    bench::inference_rows();
    bench::prepared_rows();
    return bench::run(argc, argv);
}
