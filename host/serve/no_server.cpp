#include "serve.h"

ExitStatus serve(const ServeOptions & /*options*/)
{
    throw NotDone("serve", "this program was built without libmicrohttpd and has no server");
}
