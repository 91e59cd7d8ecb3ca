# SPDX-License-Identifier: Apache-2.0
"""Collections of objects as mappings."""

from collections.abc import ItemsView, Iterator, MutableMapping, ValuesView
from typing import Any

from tessel import _tessel


_ABSENT = object()


class _Items(ItemsView):
    __slots__ = ()

    def __contains__(self, item: Any) -> bool:
        key, value = item
        return self._mapping.get(key, _ABSENT) == value

    def __iter__(self) -> Iterator[tuple[Any, Any]]:
        return self._mapping.iterateItems()


class _Values(ValuesView):
    __slots__ = ()

    def __iter__(self) -> Iterator[Any]:
        return self._mapping.iterateValues()


class Collection(_tessel.CollectionAccess, MutableMapping):
    """A collection of an object, as a mapping. Assigning None removes a member.

    A walk tolerates that members come and go meanwhile, on other threads too; dict(c.items()) takes
    a copy beside them.
    """

    __slots__ = ()

    def get(self, key: Any, default: Any = None) -> Any:
        """What cannot be a key is not in it."""
        try:
            return self[key]
        except (KeyError, TypeError, ValueError, OverflowError):
            return default

    def items(self) -> ItemsView:
        return _Items(self)

    def values(self) -> ValuesView:
        return _Values(self)
