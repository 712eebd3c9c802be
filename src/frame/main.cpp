#include "src/frame/service.hpp"

int main(int argc, char** argv)
{
    kw::service service;
    return service.run(argc, argv);
}
