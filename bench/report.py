#!/usr/bin/env python3
def tables(results):
    return "\n".join(f"{r['peer']:16} {r['measure']:18} {r['placement']:6} " + str({k: v for k, v in r.items() if k not in ('peer','measure','placement','quantiles_us')}) for r in results['figures'])
