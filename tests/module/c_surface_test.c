/* A host written in plain C against the module's binary interface: only the
 * three exports, their class ids and result codes. Exits 0 on success. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>

typedef int32_t result_t;
typedef result_t (*get_factory_fn)(void* locator, uint32_t clsid, void** factory);
typedef result_t (*create_object_fn)(uint32_t clsid, void* const* locator, void** object);
typedef result_t (*can_unload_fn)(void);

#define CHECK(cond)                                             \
  do {                                                          \
    if (!(cond)) {                                              \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                 \
    }                                                           \
  } while (0)

int main(int argc, char** argv) {
  CHECK(argc == 2);
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  CHECK(module != NULL);
  get_factory_fn get_factory = (get_factory_fn)dlsym(module, "ornGetObjectFactory");
  create_object_fn create_object = (create_object_fn)dlsym(module, "ornCreateObject");
  can_unload_fn can_unload = (can_unload_fn)dlsym(module, "ornCanUnloadModule");
  CHECK(get_factory && create_object && can_unload);

  void* factory = (void*)1;
  CHECK(get_factory(NULL, 0x12345678u, &factory) == (result_t)0x80000043u);
  CHECK(factory == NULL);

  void* object = (void*)1;
  void* locator = NULL;
  CHECK(create_object(0xBD321DA2u, &locator, &object) == (result_t)0x80000100u);
  CHECK(create_object(0x186EA113u, &locator, &object) == (result_t)0x80000100u);
  CHECK(object == (void*)1);
  CHECK(can_unload() == 0);
  CHECK(dlclose(module) == 0);
  puts("c surface: ok");
  return 0;
}
